option(KYP_BUILD_TESTS "build the tests" ON)
option(KYP_BUILD_PROGRAMS "build the programs and examples" ON)
option(KYP_BUILD_BENCH "build the benchmarks" ON)
set(KYP_SANITIZE "" CACHE STRING "sanitizers for the whole build, as -fsanitize takes them")

# Every target of this tree compiles with these.
add_library(kyp_warnings INTERFACE)
target_compile_options(kyp_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Werror
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>)

if(KYP_SANITIZE)
    add_compile_options(-fsanitize=${KYP_SANITIZE} -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${KYP_SANITIZE})
    if(KYP_SANITIZE MATCHES "undefined")
        add_compile_options(-fno-sanitize-recover=undefined)
    endif()
endif()

find_package(Threads REQUIRED)
