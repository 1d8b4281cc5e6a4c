// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The start-up diagnostics: every value of the variable, the file and its name, the echo of the arguments.
#include "environment_support.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <msg/msg.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace zel::test;

namespace {

// Opens the destination and writes a line to it.
Outcome open_and_write(const Variables &variables, const char *name = nullptr) {
    return run_with(variables, [name] {
        const StandingClock clock;
        platform_open_diagnostics(name);
        msg_diag("a line\n");
    });
}

// Opens the destination where no file can be opened.
Outcome open_without_files(const Variables &variables, const char *name = nullptr) {
    return run_with(variables, [name] {
        const StandingClock clock;
        const NoFiles files;
        platform_open_diagnostics(name);
        msg_diag("a line\n");
    });
}

std::vector<std::string> files_in(const std::string &folder) {
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(folder)) {
        names.push_back(entry.path().filename().string());
    }
    return names;
}

// Starts up with these arguments; a null name asks for the derived one.
Outcome start_up(const Variables &variables, std::vector<std::string> words, const char *name = nullptr) {
    return run_with(variables, [&] {
        std::vector<char *> argv(words.size() + 1);
        std::transform(words.begin(), words.end(), argv.begin(), [](std::string &word) { return word.data(); });
        const StandingClock clock;
        const NoFiles files;
        platform_diag_startup(static_cast<int32_t>(words.size()), argv.data(), name);
    });
}

std::string local_stamp(time_t time) {
    struct tm local = {};
    localtime_r(&time, &local);
    char text[32];
    snprintf(text, sizeof text, "%02d%02d%02d%02d%02d%02d", local.tm_year - 100, local.tm_mon, local.tm_mday,
             local.tm_hour, local.tm_min, local.tm_sec);
    return text;
}

} // namespace

TEST(PlatformDiagnostics, UnsetEmptyAndZeroOpenNothing) {
    for (const Variables &variables :
         {Variables{}, Variables{{"ZEL_DIAGNOSTICS_PATH", ""}}, Variables{{"ZEL_DIAGNOSTICS_PATH", "0"}}}) {
        const Outcome outcome = open_without_files(variables);
        EXPECT_EQ(outcome.out + outcome.err, "");
    }
}

TEST(PlatformDiagnostics, StdoutOrOneInAnyCaseIsStandardOutput) {
    for (const char *value : {"stdout", "STDOUT", "StdOut", "1"}) {
        const Outcome outcome = open_without_files({{"ZEL_DIAGNOSTICS_PATH", value}});
        EXPECT_EQ(outcome.out, "a line\n") << value;
        EXPECT_EQ(outcome.err, "") << value;
    }
}

TEST(PlatformDiagnostics, StderrOrTwoInAnyCaseIsStandardError) {
    for (const char *value : {"stderr", "STDERR", "StdErr", "2"}) {
        const Outcome outcome = open_without_files({{"ZEL_DIAGNOSTICS_PATH", value}});
        EXPECT_EQ(outcome.err, "a line\n") << value;
        EXPECT_EQ(outcome.out, "") << value;
    }
}

TEST(PlatformDiagnostics, AnyOtherValueIsADirectory) {
    for (const char *value : {"00", "10", "stdout ", "stdou", " "}) {
        const Outcome outcome = open_without_files({{"ZEL_DIAGNOSTICS_PATH", value}, {"ZEL_TMPDIR", "/t"}}, "x");
        EXPECT_EQ(outcome.out, opening("/t", "x")) << value;
    }
}

TEST(PlatformDiagnostics, InADirectoryAFileIsCreatedThatTakesTheLines) {
    const ScratchFolder folder;
    const Outcome outcome = open_and_write({{"ZEL_DIAGNOSTICS_PATH", folder.path}}, "solver");
    EXPECT_EQ(outcome.out, "sleep 1\n");
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(files_in(folder.path), std::vector<std::string>{"zel060207140509solver.log"});
    EXPECT_EQ(read_file(folder.path + "/zel060207140509solver.log"), "a line\n");
}

TEST(PlatformDiagnostics, AFileOfThatNameIsTruncated) {
    const ScratchFolder folder;
    write_file(folder.path + "/zel060207140509.log", "what an earlier process wrote\n");
    open_and_write({{"ZEL_DIAGNOSTICS_PATH", folder.path}});
    EXPECT_EQ(read_file(folder.path + "/zel060207140509.log"), "a line\n");
}

TEST(PlatformDiagnostics, ANullNameAddsNothingToTheFileName) {
    const Outcome outcome = open_without_files({{"ZEL_DIAGNOSTICS_PATH", "/tmp"}}, nullptr);
    EXPECT_EQ(outcome.out, "sleep 1\nopen /tmp/zel060207140509.log\n");
}

TEST(PlatformDiagnostics, TheFileNameCarriesTheLocalTimeWithTheMonthFromZero) {
    constexpr time_t kLastSecondOf2006 = 1167609599;
    constexpr time_t kBeyond32Bits = 2240708645; // 2041-01-02 03:04:05
    const auto stamp_of = [](time_t now, const char *zone) {
        const Outcome outcome = run_with({{"ZEL_DIAGNOSTICS_PATH", "/tmp"}, {"TZ", zone}}, [now] {
            const StandingClock clock(now);
            const NoFiles files;
            platform_open_diagnostics(nullptr);
        });
        const std::string start = "sleep 1\nopen /tmp/zel";
        return outcome.out.substr(std::min(start.size(), outcome.out.size()));
    };
    EXPECT_EQ(stamp_of(kTuesday, "UTC0"), "060207140509.log\n");
    EXPECT_EQ(stamp_of(kTuesday, "XYZ-2"), "060207160509.log\n");
    EXPECT_EQ(stamp_of(kTuesday, "XYZ+5"), "060207090509.log\n");
    EXPECT_EQ(stamp_of(kLastSecondOf2006, "UTC0"), "061131235959.log\n");
    EXPECT_EQ(stamp_of(kBeyond32Bits, "UTC0"), "410002030405.log\n");
}

TEST(PlatformDiagnostics, ATimeZoneThatTheProgramHasSetCounts) {
    const Outcome outcome = run_with({{"ZEL_DIAGNOSTICS_PATH", "/tmp"}}, [] {
        const StandingClock clock;
        const NoFiles files;
        local_stamp(kTuesday); // the C library reads the zone once here
        setenv("TZ", "XYZ-2", 1);
        platform_open_diagnostics(nullptr);
    });
    EXPECT_EQ(outcome.out, "sleep 1\nopen /tmp/zel060207160509.log\n");
}

TEST(PlatformDiagnostics, AnInterruptedPauseGoesOnUntilTheSecondHasPassed) {
    const Outcome outcome = run_with({{"ZEL_DIAGNOSTICS_PATH", "/tmp"}}, [] {
        StandingClock clock;
        const NoFiles files;
        int sleeps = 0;
        const Interposed interrupted(hook::sleep, [&](unsigned seconds) {
            printf("sleep %u\n", seconds);
            clock.now += ++sleeps == 3 ? 1 : 0;
            return 0U;
        });
        platform_open_diagnostics("x");
    });
    EXPECT_EQ(outcome.out, "sleep 1\nsleep 1\n" + opening("/tmp", "x"));
}

TEST(PlatformDiagnostics, WithTheRealClockItPausesASecondAndCarriesTheTimeOfDay) {
    const ScratchFolder folder;
    const time_t before = time(nullptr);
    const auto start = std::chrono::steady_clock::now();
    const Outcome outcome = run_in_child([&folder] {
        setenv("ZEL_DIAGNOSTICS_PATH", folder.path.c_str(), 1);
        platform_open_diagnostics("real");
        msg_diag("a line\n");
    });
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    const std::vector<std::string> files = files_in(folder.path);
    ASSERT_EQ(files.size(), 1U);
    EXPECT_GE(files[0], "zel" + local_stamp(before) + "real.log");
    EXPECT_LE(files[0], "zel" + local_stamp(time(nullptr)) + "real.log");
    EXPECT_EQ(read_file(folder.path + "/" + files[0]), "a line\n");
}

TEST(PlatformDiagnostics, WithoutAWritableDirectoryTheFirstSetVariableDecides) {
    const std::vector<std::pair<Variables, const char *>> cases = {
        {{{"ZEL_TMPDIR", "/a"}, {"TMP", "/b"}, {"TEMP", "/c"}}, "/a"},
        {{{"TMP", "/b"}, {"TEMP", "/c"}}, "/b"},
        {{{"TEMP", "/c"}}, "/c"},
        {{{"ZEL_TMPDIR", "/a"}, {"TEMP", "/c"}}, "/a"},
        {{}, ""},
        {{{"ZEL_TMPDIR", ""}, {"TMP", "/b"}}, ""}, // set, though empty
    };
    for (const auto &[set, directory] : cases) {
        Variables variables = set;
        variables["ZEL_DIAGNOSTICS_PATH"] = "/no/such/directory";
        EXPECT_EQ(open_without_files(variables, "x").out, opening(directory, "x"));
    }
}

TEST(PlatformDiagnostics, AWritableDirectoryGoesAheadOfTheVariables) {
    const ScratchFolder folder;
    const Outcome outcome = open_without_files({{"ZEL_DIAGNOSTICS_PATH", folder.path}, {"ZEL_TMPDIR", "/a"}}, "x");
    EXPECT_EQ(outcome.out, opening(folder.path, "x"));
}

TEST(PlatformDiagnostics, AFileInPlaceOfADirectoryIsReplaced) {
    const ScratchFolder folder;
    write_file(folder.path + "/file", "");
    open_and_write({{"ZEL_DIAGNOSTICS_PATH", folder.path + "/file"}, {"ZEL_TMPDIR", folder.path}}, "x");
    EXPECT_EQ(read_file(folder.path + "/zel060207140509x.log"), "a line\n");
    EXPECT_EQ(read_file(folder.path + "/file"), "");
}

TEST(PlatformDiagnostics, ADirectoryWithoutWritePermissionIsReplaced) {
    const ScratchFolder folder;
    chmod(folder.path.c_str(), 0555);
    const Outcome outcome = run_with({{"ZEL_DIAGNOSTICS_PATH", folder.path}, {"ZEL_TMPDIR", "/a"}}, [] {
        give_up_root();
        const StandingClock clock;
        const NoFiles files;
        platform_open_diagnostics("x");
        fflush(stdout);
        _exit(0);
    });
    EXPECT_EQ(outcome.out, opening("/a", "x"));
}

TEST(PlatformDiagnostics, AFallbackDirectoryIsNotTestedAndItsFailureNotReported) {
    const ScratchFolder folder;
    const Outcome outcome = open_and_write({{"ZEL_DIAGNOSTICS_PATH", "/no/such/directory"},
                                            {"ZEL_TMPDIR", folder.path + "/missing"},
                                            {"TMP", folder.path},
                                            {"ZEL_PERROR", "1"}});
    EXPECT_EQ(outcome.out, "sleep 1\n");
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_TRUE(files_in(folder.path).empty());
}

// The size that this holds: a path has at most 4095 characters.
TEST(PlatformDiagnostics, APathTooLongForItsBufferIsRefused) {
    constexpr size_t kLongest = 4095;
    const std::string name = "/zel060207140509x.log";
    const std::string directory = "/" + std::string(kLongest - name.size() - 1, 'd');
    const auto open_in = [](const std::string &where) {
        return open_without_files({{"ZEL_DIAGNOSTICS_PATH", "/no/such/directory"}, {"ZEL_TMPDIR", where}}, "x").out;
    };
    EXPECT_EQ(open_in(directory), opening(directory, "x"));
    EXPECT_EQ(open_in(directory + "d"), "");
    EXPECT_EQ(open_in(directory + std::string(10000, 'd')), "");
}

TEST(PlatformDiagnostics, TheFileStaysOpen) {
    const ScratchFolder folder;
    const Outcome outcome = run_with({{"ZEL_DIAGNOSTICS_PATH", folder.path}}, [&folder] {
        const StandingClock clock;
        platform_open_diagnostics("x");
        const std::string path = folder.path + "/zel060207140509x.log";
        for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code ignored;
            printf("%s", std::filesystem::read_symlink(entry, ignored) == path ? "open\n" : "");
        }
    });
    EXPECT_EQ(outcome.out, "sleep 1\nopen\n");
}

TEST(PlatformDiagnostics, OnlyTheFirstCallActs) {
    const Outcome outcome = run_with({{"ZEL_DIAGNOSTICS_PATH", "stdout"}}, [] {
        platform_open_diagnostics(nullptr);
        setenv("ZEL_DIAGNOSTICS_PATH", "stderr", 1);
        platform_open_diagnostics(nullptr);
        msg_diag("a line\n");
    });
    EXPECT_EQ(outcome.out, "a line\n");
    EXPECT_EQ(outcome.err, "");
}

TEST(PlatformDiagnostics, AFirstCallThatOpensNothingIsTheChoiceToo) {
    for (const Variables &variables : {Variables{}, Variables{{"ZEL_DIAGNOSTICS_PATH", "/no/such/directory"}}}) {
        const Outcome outcome = run_with(variables, [] {
            {
                const StandingClock clock;
                const NoFiles files;
                platform_open_diagnostics(nullptr);
            }
            setenv("ZEL_DIAGNOSTICS_PATH", "stderr", 1);
            platform_open_diagnostics(nullptr);
            platform_diag_startup(0, nullptr, nullptr);
            msg_diag("a line\n");
        });
        EXPECT_EQ(outcome.err, "");
    }
}

TEST(PlatformDiagStartup, TheNameIsDerivedFromTheProgram) {
    const std::vector<std::pair<const char *, const char *>> cases = {
        {"/opt/bin/kyrelsolver.x", "solver"},
        {"solver", "solver"},
        {"./solver", "solver"},
        {"/opt/v1.2/solver", "solver"},
        {"/opt/bin/", ""},
        {"", ""},
        // cut at the last dot, unless no dot stands behind the first character
        {"a.b.c", "a.b"},
        {"a.", "a"},
        {".profile", ".profile"},
        {".a.b", ".a"},
        {"..", "."},
        {"/opt/.profile", ".profile"},
        // one leading prefix dropped, in any case of letters
        {"kyrel", ""},
        {"KYRELsolver", "solver"},
        {"KyReLsolver", "solver"},
        {"zelsolver.exe", "solver"},
        {"ZELsolver", "solver"},
        {"kq_solver", "solver"},
        {"KQ_solver", "solver"},
        {"zel.x", ""},
        {"kyrelzelsolver", "zelsolver"},
        {"zelkq_solver", "kq_solver"},
        {"zelzelsolver", "zelsolver"},
        {"kyrekq_", "kyrekq_"},
        {"kqsolver", "kqsolver"},
        {"ze", "ze"},
        {"myzel", "myzel"},
        {".zelsolver", ".zelsolver"},
        {"zel.kyrel.x", ".kyrel"},
    };
    for (const auto &[program, name] : cases) {
        EXPECT_EQ(start_up({{"ZEL_DIAGNOSTICS_PATH", "/tmp"}}, {program}).out, opening("/tmp", name)) << program;
    }
}

TEST(PlatformDiagStartup, AGivenNameIsTakenAsItStands) {
    for (const char *name : {"zelnamed.x", "named", ""}) {
        EXPECT_EQ(start_up({{"ZEL_DIAGNOSTICS_PATH", "/tmp"}}, {"/bin/zelprog"}, name).out, opening("/tmp", name));
    }
}

TEST(PlatformDiagStartup, AProgramNameOfAnyLengthIsSafe) {
    const std::string longest(4075, 'n');
    EXPECT_EQ(start_up({{"ZEL_DIAGNOSTICS_PATH", "/no/such/directory"}}, {longest}).out, opening("", longest));
    EXPECT_EQ(start_up({{"ZEL_DIAGNOSTICS_PATH", "/no/such/directory"}}, {longest + "n"}).out, "");
    EXPECT_EQ(start_up({{"ZEL_DIAGNOSTICS_PATH", "/no/such/directory"}}, {std::string(20000, 'n')}).out, "");
}

TEST(PlatformDiagStartup, EveryArgumentIsEchoed) {
    const Outcome outcome = start_up({{"ZEL_DIAGNOSTICS_PATH", "stdout"}}, {"/bin/prog", "", "two words", "\"q\""});
    EXPECT_EQ(outcome.out, "argv[0] = \"/bin/prog\"\nargv[1] = \"\"\nargv[2] = \"two words\"\nargv[3] = \"\"q\"\"\n");
    EXPECT_EQ(outcome.err, "");
}

TEST(PlatformDiagStartup, AConversionInAnArgumentConvertsNothing) {
    const Outcome outcome = start_up({{"ZEL_DIAGNOSTICS_PATH", "stdout"}}, {"50%", "%s%n"});
    EXPECT_EQ(outcome.out, "argv[0] = \"50%\"\nargv[1] = \"%s%n\"\n");
}

TEST(PlatformDiagStartup, TheArgumentsOpenTheDiagnosticsFile) {
    const ScratchFolder folder;
    run_with({{"ZEL_DIAGNOSTICS_PATH", folder.path}}, [] {
        const StandingClock clock;
        char program[] = "/opt/bin/kyrelsolver.x";
        char argument[] = "-v";
        char *argv[] = {program, argument, nullptr};
        platform_diag_startup(2, argv, nullptr);
        msg_diag("a line\n");
    });
    EXPECT_EQ(read_file(folder.path + "/zel060207140509solver.log"),
              "argv[0] = \"/opt/bin/kyrelsolver.x\"\nargv[1] = \"-v\"\na line\n");
}

TEST(PlatformDiagStartup, OnlyAsManyArgumentsAsAreCounted) {
    const Outcome outcome = run_with({{"ZEL_DIAGNOSTICS_PATH", "stdout"}}, [] {
        char program[] = "prog";
        char argument[] = "left out";
        char *argv[] = {program, argument, nullptr};
        platform_diag_startup(1, argv, nullptr);
        platform_diag_startup(0, argv, nullptr);
        platform_diag_startup(-1, argv, nullptr);
    });
    EXPECT_EQ(outcome.out, "argv[0] = \"prog\"\n");
}

TEST(PlatformDiagStartup, WithoutADestinationNothingIsWritten) {
    const Outcome outcome = start_up({}, {"prog", "a"});
    EXPECT_EQ(outcome.out + outcome.err, "");
}
