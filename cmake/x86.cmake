# Builds for 32-bit x86 with the native compiler. CMake then cross-compiles: it runs nothing that it
# builds. The kernel's headers are those of 64 bits. The package gcc-multilib would put them where
# -m32 looks by itself, but cannot be installed beside a cross compiler.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_FLAGS_INIT "-m32 -idirafter /usr/include/x86_64-linux-gnu")
set(CMAKE_CXX_FLAGS_INIT ${CMAKE_C_FLAGS_INIT})
