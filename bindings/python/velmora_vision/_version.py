"""The version of this package, and of the library that it fits."""

VERSION = "0.1.0"
