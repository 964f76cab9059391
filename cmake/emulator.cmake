# Some x86-64 kernels do not run 32-bit programs. There the tests run under qemu's emulation of a process, which is said
# when the build is configured. Set CMAKE_CROSSCOMPILING_EMULATOR to choose another one, to nothing for none.
# Limits of the emulation: a program that starts another 32-bit program has to start it with $KEST_EMULATOR, which is set
# in programs that are emulated, and there is no search for leaks, which needs ptrace.
if(CMAKE_SIZEOF_VOID_P EQUAL 4 AND NOT DEFINED CMAKE_CROSSCOMPILING_EMULATOR)
    set(source "${CMAKE_CURRENT_BINARY_DIR}/runs.cpp")
    file(WRITE "${source}" "int main() { return 0; }\n")
    # Without flags: under a sanitizer the program might fail for another reason.
    execute_process(COMMAND "${CMAKE_CXX_COMPILER}" -m32 "${source}" -o "${source}.out" RESULT_VARIABLE result)
    if(result EQUAL 0)
        execute_process(COMMAND "${source}.out" RESULT_VARIABLE result ERROR_QUIET)
        if(NOT result EQUAL 0)
            find_program(KEST_EMULATOR NAMES qemu-i386 qemu-i386-static)
            if(KEST_EMULATOR)
                message(STATUS "32-bit programs do not run on this system: the tests run under ${KEST_EMULATOR}")
                set(CMAKE_CROSSCOMPILING_EMULATOR
                    "${KEST_EMULATOR}" -E "KEST_EMULATOR=${KEST_EMULATOR}" -E ASAN_OPTIONS=detect_leaks=0)
            else()
                message(WARNING "32-bit programs do not run on this system and there is no qemu-i386 (package qemu-user): "
                    "the tests will fail")
            endif()
        endif()
    endif()
endif()
