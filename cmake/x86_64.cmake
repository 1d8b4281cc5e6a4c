# Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
# x86-64, everybody's present machine.
set(CMAKE_C_FLAGS_INIT "-m64")
set(CMAKE_CXX_FLAGS_INIT "-m64")
set(ZEL_TARGET x86_64)
