# zo_warnings: what every target of ours is compiled with.
add_library(zo_warnings INTERFACE)
target_compile_options(zo_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wold-style-cast
    -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-align -Wformat=2 -Wundef -Wnull-dereference
    $<$<CXX_COMPILER_ID:GNU>:-Wshadow=local -Wduplicated-cond -Wlogical-op>
    $<$<CXX_COMPILER_ID:Clang>:-Wshadow>
    $<$<BOOL:${ZO_WERROR}>:-Werror>)
