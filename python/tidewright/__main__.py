"""``python -m tidewright``: the ``tidewright-sync`` command line.

The engine itself, :mod:`tidewright.sync`, is an extension module, and
``python -m`` can only run modules that have Python code; this is the
package's runnable alias for the console script.
"""

from tidewright.cli import console_main

if __name__ == "__main__":
    console_main()
