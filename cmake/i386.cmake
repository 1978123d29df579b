# 32-bit x86 with the machine's own compiler, run as it stands. The folder of the kernel's headers is named
# because the package that would link it into place cannot be installed beside a cross compiler.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_CXX_COMPILER g++)
add_compile_options(-m32 -idirafter /usr/include/x86_64-linux-gnu)
add_link_options(-m32)
