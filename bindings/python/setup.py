"""Builds the wheel: the Python code, and the shared library that the build made.

    VELMORA_VISION_LIBRARY=.../libvision_c.so pip wheel --no-build-isolation --no-deps .
"""

import os
import shutil

from setuptools import Distribution, setup
from setuptools.command.build_py import build_py

try:
    from setuptools.command.bdist_wheel import bdist_wheel
except ImportError:  # before setuptools 70.1
    from wheel.bdist_wheel import bdist_wheel

SONAME = "libvision_c.so.0.1"


class BuildWithLibrary(build_py):
    def run(self):
        super().run()
        library = os.environ.get("VELMORA_VISION_LIBRARY", "")
        if not os.path.isfile(library):
            raise SystemExit(f'VELMORA_VISION_LIBRARY must be the path of libvision_c.so, not "{library}"')
        shutil.copyfile(library, os.path.join(self.build_lib, "velmora_vision", SONAME))


class ForAnyPython(bdist_wheel):
    def get_tag(self):
        return "py3", "none", super().get_tag()[2]


class ForThisPlatform(Distribution):
    def has_ext_modules(self):
        return True


setup(cmdclass={"build_py": BuildWithLibrary, "bdist_wheel": ForAnyPython}, distclass=ForThisPlatform)
