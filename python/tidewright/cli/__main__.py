"""``python -m tidewright.cli``: the ``tidewright-sync`` command line."""

from tidewright.cli import console_main

if __name__ == "__main__":
    console_main()
