#!/usr/bin/env python3
"""Tries the recipes of packaging/ as far as possible without their tools: recipes.py SOURCE_DIR BUILD_DIR VERSION WORK_DIR.

The Conan recipe exports its sources, which are configured alone, and tells what its users need; the port for vcpkg runs step by step.
"""
import importlib.util
import json
import os
import pathlib
import shutil
import subprocess
import sys
import types
from unittest import mock

os.environ["CMAKE_GENERATOR"] = "Ninja"  # Ninja is installed; make, the default, may not be
source, build, version, work = pathlib.Path(sys.argv[1]), sys.argv[2], sys.argv[3], pathlib.Path(sys.argv[4])
STEPS = r"""
function(vcpkg_cmake_configure)
    cmake_parse_arguments(PARSE_ARGV 0 to "" SOURCE_PATH OPTIONS)
    execute_process(COMMAND "${CMAKE_COMMAND}" -S "${to_SOURCE_PATH}" -B "${WORK}/configured" ${to_OPTIONS}
        ERROR_VARIABLE said OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
    if(said)
        message(FATAL_ERROR "${said}")
    endif()
endfunction()
function(vcpkg_cmake_install)
    execute_process(COMMAND "${CMAKE_COMMAND}" --install "${BUILD}" --prefix "${CURRENT_PACKAGES_DIR}"
        OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
endfunction()
function(vcpkg_cmake_config_fixup)
    cmake_parse_arguments(PARSE_ARGV 0 to "" "PACKAGE_NAME;CONFIG_PATH" "")
    file(MAKE_DIRECTORY "${CURRENT_PACKAGES_DIR}/share")
    file(RENAME "${CURRENT_PACKAGES_DIR}/${to_CONFIG_PATH}" "${CURRENT_PACKAGES_DIR}/share/${to_PACKAGE_NAME}")
endfunction()
function(vcpkg_fixup_pkgconfig)
    file(READ "${CURRENT_PACKAGES_DIR}/lib/pkgconfig/kest.pc" ignored)
endfunction()
function(vcpkg_install_copyright)
    cmake_parse_arguments(PARSE_ARGV 0 to "" "" FILE_LIST)
    file(INSTALL ${to_FILE_LIST} DESTINATION "${CURRENT_PACKAGES_DIR}/share/${PORT}")
endfunction()
"""


def copy(_, pattern, src, dst):
    for path in pathlib.Path(src).glob(pattern.replace("*", "**/*")):
        if path.is_file():
            target = pathlib.Path(dst, path.relative_to(src))
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(path, target)


def try_conan(folder):
    files = types.SimpleNamespace(copy=copy, load=lambda _, path: pathlib.Path(path).read_text(), rmdir=None)
    tool = types.SimpleNamespace(ConanFile=object)
    modules = {"conan": tool, "conan.tools": tool, "conan.tools.cmake": mock.MagicMock(), "conan.tools.files": files}
    with mock.patch.dict(sys.modules, modules):
        about = importlib.util.spec_from_file_location("recipe", folder / "conanfile.py")
        module = importlib.util.module_from_spec(about)
        about.loader.exec_module(module)
    recipe = module.KestRecipe()
    recipe.recipe_folder, recipe.export_sources_folder, recipe.cpp_info = str(folder), str(work / "exported"), mock.MagicMock()
    recipe.options = types.SimpleNamespace(shared=False)
    recipe.set_version()
    assert recipe.version == version, recipe.version
    recipe.export_sources()
    options = ["-DKEST_BUILD_TESTS=OFF", "-DKEST_BUILD_EXAMPLES=OFF"]
    subprocess.run(["cmake", "-S", work / "exported", "-B", work / "alone", *options], check=True)
    assert pathlib.Path(recipe.export_sources_folder, "debian/copyright").is_file()
    recipe.package_info()
    told = pathlib.Path(build, "kest/kest.pc").read_text()
    for flag in [f"-D{define}" for define in recipe.cpp_info.defines] + recipe.cpp_info.exelinkflags:
        assert flag in told, flag
    assert told.count(" -D") == len(recipe.cpp_info.defines), told
    compile((folder / "test_package/conanfile.py").read_text(), "test_package", "exec")


def try_vcpkg(port):
    stated = json.loads((port / "vcpkg.json").read_text())
    assert stated["version"] == version, stated
    packages = work / "vcpkg"
    (work / "steps.cmake").write_text(f'{STEPS}\nset(WORK "{work}")\nset(BUILD "{build}")\nset(PORT {stated["name"]})\n'
                                      f'set(CURRENT_PACKAGES_DIR "{packages}")\ninclude("{port}/portfile.cmake")\n')
    subprocess.run(["cmake", "-P", work / "steps.cmake"], check=True)
    for name in ("include/kest/kest.h", "share/kest/kestConfig.cmake", "share/kest/usage", "share/kest/copyright", "lib/libkest.so"):
        assert (packages / name).exists(), name


shutil.rmtree(work, ignore_errors=True)
work.mkdir(parents=True)
try_conan(source / "packaging/conan")
try_vcpkg(source / "packaging/vcpkg/kest")
