"""Builds the oxel wheel: the extension and liboxel come from the CMake project, side by side
in the package, the extension finding the library through $ORIGIN."""
import os
import re
import shutil
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = os.path.dirname(os.path.abspath(__file__))
# Everything setuptools and CMake write goes below this folder (OXEL_SETUP_BUILD moves it).
BUILD_BASE = os.environ.get("OXEL_SETUP_BUILD", os.path.join(ROOT, "build-python"))
os.makedirs(BUILD_BASE, exist_ok=True)


def project_version():
    with open(os.path.join(ROOT, "CMakeLists.txt")) as f:
        return re.search(r"project\(oxel VERSION ([0-9.]+)", f.read()).group(1)


class CMakeBuild(build_ext):
    """Configures the library and the module only (no tests, tools or benchmarks) and copies the
    two shared objects into the package."""

    def build_extension(self, ext):
        cmake_dir = os.path.join(BUILD_BASE, "cmake")
        subprocess.check_call([
            "cmake", "-S", ROOT, "-B", cmake_dir, "-DCMAKE_BUILD_TYPE=Release",
            "-DOXEL_BUILD_PYTHON=ON", "-DOXEL_PYTHON_BUNDLE=ON", "-DOXEL_BUILD_TESTS=OFF",
            "-DOXEL_BUILD_TOOLS=OFF", "-DOXEL_PYTHON=" + sys.executable,
            "-DPython_EXECUTABLE=" + sys.executable])
        jobs = os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL", "2")
        subprocess.check_call(["cmake", "--build", cmake_dir, "--target", "oxel_python",
                               "-j", jobs])
        target = self.get_ext_fullpath(ext.name)
        os.makedirs(os.path.dirname(target), exist_ok=True)
        built = os.path.join(cmake_dir, "python", "oxel")
        module = [f for f in os.listdir(built) if f.startswith("_oxel.") and f.endswith(".so")]
        shutil.copyfile(os.path.join(built, module[0]), target)
        # The library under its soname, the one name the extension asks the loader for.
        soname = "liboxel.so." + project_version().split(".")[0]
        shutil.copyfile(os.path.join(cmake_dir, soname),
                        os.path.join(os.path.dirname(target), soname))


setup(
    version=project_version(),
    packages=["oxel"],
    package_data={"oxel": ["_oxel.pyi", "py.typed"]},
    package_dir={"": "python"},
    ext_modules=[Extension("oxel._oxel", sources=[])],
    cmdclass={"build_ext": CMakeBuild},
    options={"build": {"build_base": BUILD_BASE}, "egg_info": {"egg_base": BUILD_BASE}},
    zip_safe=False,
)
