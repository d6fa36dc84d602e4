"""Lets CMake build and install the package where the wheel is gathered.

TIDALCREST_BUILD_DIR names a build directory that already has the Python package; it is then only installed.
"""

import os
import subprocess
import sys
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext
from setuptools.errors import CompileError

SOURCE = Path(__file__).resolve().parent


class CMakeBuild(build_ext):
    """The whole package comes from CMake, the Python files too."""

    def build_extension(self, extension):
        build = os.environ.get("TIDALCREST_BUILD_DIR") or self._build()
        target = Path(self.build_lib).resolve() / "installed"
        self._cmake("--install", build, "--strip", "--component", "python", "--prefix", target)
        (package,) = target.glob("lib/python*/*-packages/tidalcrest")
        destination = Path(self.get_ext_fullpath("tidalcrest.sync._native")).resolve().parent
        self.copy_tree(str(package / "sync"), str(destination))
        self._cmake("-E", "rm", "-r", target)

    def _build(self):
        build = Path(self.build_temp).resolve()
        self._cmake("-S", SOURCE, "-B", build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
                    "-DTIDALCREST_BUILD_PYTHON=ON", "-DTIDALCREST_BUILD_TESTS=OFF", "-DTIDALCREST_BUILD_PROGRAMS=OFF",
                    f"-DPython_EXECUTABLE={sys.executable}")
        self._cmake("--build", build, "--target", "tidalcrest_python_package")
        return build

    @staticmethod
    def _cmake(*arguments):
        try:
            subprocess.run(["cmake", *map(str, arguments)], check=True)
        except (OSError, subprocess.CalledProcessError) as failure:
            raise CompileError(f"{failure}\nWhat the build needs is installed by `./dev setup`.") from failure


setup(ext_modules=[Extension("tidalcrest.sync._native", sources=[])], cmdclass={"build_ext": CMakeBuild})
