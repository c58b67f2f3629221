# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

# 32-bit x86 on Debian with that architecture added. Most 64-bit kernels run it as it is; where one
# does not, the cache entry CMAKE_CROSSCOMPILING_EMULATOR names qemu-i386.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER i686-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER i686-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/i386-linux-gnu/pkgconfig:/usr/share/pkgconfig)
