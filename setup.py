# SPDX-License-Identifier: Apache-2.0
"""Builds the extension module quelta._quelta with the project's CMake build
(-DQUELTA_BUILD_PYTHON=ON): the same sources and compiler flags as the C
libraries. The package's metadata is in pyproject.toml."""

import os
import pathlib
import shutil
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = pathlib.Path(__file__).resolve().parent


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        build = pathlib.Path(self.build_temp).resolve() / "cmake"
        build.mkdir(parents=True, exist_ok=True)
        configure = [
            "cmake", "-S", str(ROOT), "-B", str(build),
            "-DCMAKE_BUILD_TYPE=Release",
            "-DQUELTA_BUILD_PYTHON=ON",
            "-DQUELTA_BUILD_TESTS=OFF",
            "-DQUELTA_BUILD_TOOLS=OFF",
            "-DQUELTA_INSTALL=OFF",
            "-DPython_EXECUTABLE=" + sys.executable,
        ]
        # ccache, when the environment asks for it.
        launcher = os.environ.get("QUELTA_COMPILER_LAUNCHER")
        if launcher:
            configure += ["-DCMAKE_C_COMPILER_LAUNCHER=" + launcher, "-DCMAKE_CXX_COMPILER_LAUNCHER=" + launcher]
        subprocess.check_call(configure)
        jobs = os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL", str(os.cpu_count() or 1))
        subprocess.check_call(["cmake", "--build", str(build), "--target", "quelta_python", "-j", jobs])
        built = next((build / "python" / "quelta").glob("_quelta*.so"))
        target = pathlib.Path(self.get_ext_fullpath(ext.name))
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(built, target)


setup(
    ext_modules=[Extension("quelta._quelta", sources=[])],
    cmdclass={"build_ext": CMakeBuild},
)
