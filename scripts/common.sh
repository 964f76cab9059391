# shellcheck shell=bash
# What the scripts share. Each script begins with . "$(dirname "${BASH_SOURCE[0]}")/common.sh", which also changes to the root of the
# checkout.
unset CDPATH # with it, cd would print where it went
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root" || exit
logs=$root/build/logs
mkdir -p "$logs"

show_end() { # LOG
    tail -n 200 "$1"
}

# Runs COMMAND with its output in build/logs/NAME.log. When the command fails, shows the end of its output and fails too.
logged() { # NAME COMMAND...
    local log=$logs/$1.log
    "${@:2}" >"$log" 2>&1 </dev/null && return
    show_end "$log"
    return 1
}

# Returns whether each WORD is an element of the array named KNOWN, and none is given twice.
are_known() { # KNOWN [WORD...]
    local -n known_words=$1
    local one_word
    local -A rest_of_words=()
    for one_word in "${known_words[@]}"; do
        rest_of_words[$one_word]=1
    done
    for one_word in "${@:2}"; do
        [[ -n $one_word && -n ${rest_of_words[$one_word]:-} ]] || return 1
        unset "rest_of_words[$one_word]"
    done
}

build_preset() { # PRESET [TARGET...]
    local targets=()
    (($# == 1)) || targets=(--target "${@:2}")
    cmake --preset "$1" && cmake --build --preset "$1" -j2 "${targets[@]}"
}

is_installed() { # PACKAGE
    local status
    status=$(dpkg-query -W -f='${db:Status-Status} ' "$1" 2>/dev/null || true)
    [[ " $status" == *" installed "* ]]
}

as_root() { # COMMAND...
    if ((EUID == 0)); then
        "$@"
    elif command -v sudo >/dev/null; then
        sudo "$@"
    else
        echo "setup: not root, and no sudo. Please run: $*" >&2
        exit 1
    fi
}

# Installs those of the packages that are missing. Asks no question, except sudo's for a password.
install_missing() { # PACKAGE...
    local missing=() package
    for package in "$@"; do
        is_installed "$package" || missing+=("$package")
    done
    ((${#missing[@]} > 0)) || return 0

    echo "setup: installing ${missing[*]}"
    as_root env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=300 update -qq
    as_root env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=300 install -y -qq --no-install-recommends "${missing[@]}"
}

# Installs what both compilers need for 32 bits. The package g++-multilib, without the version, conflicts with each cross compiler. Only
# that package brings the link by which 32-bit programs find the headers of the kernel, so the link is made here.
install_multilib() {
    install_missing "g++-$(/usr/bin/g++ -dumpversion)-multilib"
    [[ -e /usr/include/asm || ! -d /usr/include/x86_64-linux-gnu/asm ]] || as_root ln -s x86_64-linux-gnu/asm /usr/include/asm
}

# Whether the kernel runs 32-bit programs of x86. Needs a compiler that makes them.
runs_32_bits() {
    local folder result=0
    folder=$(mktemp -d) || exit # of the script: there is no answer
    echo 'int main() { return 0; }' | g++ -m32 -x c++ - -o "$folder/program" && "$folder/program" 2>/dev/null || result=1
    rm -r "$folder"
    return "$result"
}

# The architectures that are cross-compiled, by Debian's names, and the beginning of the names of their compilers.
declare -A cross_machines=(
    [arm64]=aarch64-linux-gnu [armhf]=arm-linux-gnueabihf [s390x]=s390x-linux-gnu [riscv64]=riscv64-linux-gnu [ppc64el]=powerpc64le-linux-gnu
)

# Installs a cross compiler, of the version that the presets name, and the emulator. The package manager removes g++-multilib, without a
# version, which conflicts with cross compilers; g++-12-multilib keeps its compilers.
install_cross() { # ARCHITECTURE
    install_missing qemu-user g++-12-multilib "g++-12-${cross_machines[$1]}"
    install_multilib
}
