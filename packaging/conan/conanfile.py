"""Recipe for Conan 2, to be used in a copy of the sources: conan create packaging/conan."""
import os
import re

from conan import ConanFile
from conan.tools.cmake import CMake, CMakeToolchain, cmake_layout
from conan.tools.files import copy, load, rmdir

# What the library is built of, seen from the root of the sources.
SOURCES = ("CMakeLists.txt", "kest/*", "cmake/*", "debian/copyright")


class KestRecipe(ConanFile):
    name = "kest"
    description = "Object-oriented access to the services of a POSIX system"
    license = "LicenseRef-all-rights-reserved"
    topics = ("posix", "sockets", "threads", "filesystem")
    package_type = "library"
    settings = "os", "arch", "compiler", "build_type"
    options = {"shared": [True, False], "fPIC": [True, False]}
    default_options = {"shared": True, "fPIC": True}
    implements = ["auto_shared_fpic"]

    def set_version(self):
        header = load(self, os.path.join(self.recipe_folder, "..", "..", "kest", "version.h"))
        self.version = ".".join(re.findall(r"^#define KEST_VERSION_(?:MAJOR|MINOR|PATCH) (\d+)", header, flags=re.M))

    def export_sources(self):
        for pattern in SOURCES:
            copy(self, pattern, os.path.join(self.recipe_folder, "..", ".."), self.export_sources_folder)

    def layout(self):
        cmake_layout(self)

    def generate(self):
        toolchain = CMakeToolchain(self)
        toolchain.cache_variables["KEST_BUILD_TESTS"] = False
        toolchain.cache_variables["KEST_BUILD_EXAMPLES"] = False
        toolchain.generate()

    def build(self):
        cmake = CMake(self)
        cmake.configure()
        cmake.build()

    def package(self):
        CMake(self).install()
        copy(self, "copyright", os.path.join(self.source_folder, "debian"), os.path.join(self.package_folder, "licenses"))
        # Conan writes these itself, from what follows.
        rmdir(self, os.path.join(self.package_folder, "lib", "cmake"))
        rmdir(self, os.path.join(self.package_folder, "lib", "pkgconfig"))

    def package_info(self):
        self.cpp_info.set_property("cmake_file_name", "kest")
        self.cpp_info.set_property("cmake_target_name", "kest::kest")
        self.cpp_info.set_property("pkg_config_name", "kest")
        self.cpp_info.libs = ["kest"]
        self.cpp_info.defines = ["_FILE_OFFSET_BITS=64", "_TIME_BITS=64"]
        if not self.options.shared:
            self.cpp_info.system_libs = ["pthread", "dl"]
            # pthread_cancel loads it on its first use, so no symbol of it may be needed when the program is linked.
            unwinder = ["-Wl,--push-state,--no-as-needed,-lgcc_s,--pop-state"]
            self.cpp_info.sharedlinkflags = unwinder
            self.cpp_info.exelinkflags = unwinder
