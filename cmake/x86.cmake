# Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
# 32-bit x86, the reference target, built with the multilib compiler of an x86-64 machine.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_FLAGS_INIT "-m32 -march=i686 -mtune=generic")
set(CMAKE_CXX_FLAGS_INIT "-m32 -march=i686 -mtune=generic")
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set(CMAKE_CROSSCOMPILING_EMULATOR "")
set(ZEL_TARGET x86)
