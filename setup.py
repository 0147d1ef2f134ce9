"""Builds the native module with the project's CMake and puts it in the package."""
import os
import shutil
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        source = os.path.dirname(os.path.abspath(__file__))
        build = os.path.abspath(os.path.join(self.build_temp, "cmake"))
        subprocess.check_call(["cmake", "-S", source, "-B", build, "-DCMAKE_BUILD_TYPE=Release",
                               "-DQUAVIX_BUILD_PYTHON=ON", "-DQUAVIX_BUILD_TESTS=OFF", "-DQUAVIX_BUILD_BENCH=OFF",
                               f"-DPython_EXECUTABLE={sys.executable}"])
        subprocess.check_call(["cmake", "--build", build, "--target", "_quavix", "-j", str(os.cpu_count() or 2)])
        built = [f for f in os.listdir(os.path.join(build, "python", "quavix")) if f.startswith("_quavix") and f.endswith(".so")]
        target = self.get_ext_fullpath(ext.name)
        os.makedirs(os.path.dirname(target), exist_ok=True)
        shutil.copyfile(os.path.join(build, "python", "quavix", built[0]), target)


setup(
    packages=["quavix"],
    package_dir={"": "python"},
    ext_modules=[Extension("quavix._quavix", sources=[])],
    cmdclass={"build_ext": CMakeBuild},
    zip_safe=False,
)
