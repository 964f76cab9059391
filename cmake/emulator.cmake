# Where this system does not run the programs of the build, the tests run under qemu's emulation of a process. That concerns programs for
# another processor, and 32-bit programs on an x86-64 kernel that does not run them. CMake says so when it configures the build. Set
# CMAKE_CROSSCOMPILING_EMULATOR to choose another emulator, or to nothing for none.
# Limits of the emulation: an emulated program has to start another program of the build with $KEST_EMULATOR, which is set in its
# environment. The search for leaks does not work, since it needs ptrace.
if(DEFINED CMAKE_CROSSCOMPILING_EMULATOR)
    return()
endif()

set(processor "")
set(KEST_EMULATOR_LIBRARIES "")
if(CMAKE_CROSSCOMPILING)
    set(processor "${CMAKE_SYSTEM_PROCESSOR}")
    # Where Debian's cross compilers have the C library of their target.
    execute_process(COMMAND "${CMAKE_CXX_COMPILER}" -dumpmachine OUTPUT_VARIABLE machine OUTPUT_STRIP_TRAILING_WHITESPACE)
    set(KEST_EMULATOR_LIBRARIES "/usr/${machine}")
elseif(CMAKE_SIZEOF_VOID_P EQUAL 4)
    set(source "${CMAKE_CURRENT_BINARY_DIR}/runs.cpp")
    file(WRITE "${source}" "int main() { return 0; }\n")
    # No flags: with a sanitizer the program might fail for another reason.
    execute_process(COMMAND "${CMAKE_CXX_COMPILER}" -m32 "${source}" -o "${source}.out" RESULT_VARIABLE result)
    if(result EQUAL 0)
        execute_process(COMMAND "${source}.out" RESULT_VARIABLE result ERROR_QUIET)
        if(NOT result EQUAL 0)
            set(processor i386)
        endif()
    endif()
endif()

if(processor)
    find_program(KEST_EMULATOR NAMES qemu-${processor} qemu-${processor}-static)
    if(KEST_EMULATOR)
        message(STATUS "This system does not run programs for ${processor}: the tests run under ${KEST_EMULATOR}")
        set(CMAKE_CROSSCOMPILING_EMULATOR "${KEST_EMULATOR}" -E "KEST_EMULATOR=${KEST_EMULATOR}" -E ASAN_OPTIONS=detect_leaks=0)
        if(KEST_EMULATOR_LIBRARIES)
            list(APPEND CMAKE_CROSSCOMPILING_EMULATOR -L "${KEST_EMULATOR_LIBRARIES}" -E "QEMU_LD_PREFIX=${KEST_EMULATOR_LIBRARIES}")
        endif()
    else()
        message(WARNING "This system does not run programs for ${processor} and there is no qemu-${processor} (package qemu-user): "
            "the tests will fail")
    endif()
endif()
