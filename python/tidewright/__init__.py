"""Tidewright client package.

The data-synchronisation engine is the native extension module
:mod:`tidewright.sync`; the other modules of this package are the small
sibling modules it calls at run time (authentication, transport security,
backoff, deployment, rotation, ...). Each is looked up when it is used, so a
host application (or a test) can replace any of them.
"""

from tidewright._version import __version__  # generated at build time from pyproject.toml

__all__ = ["__version__"]
