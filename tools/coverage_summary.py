"""Prints the combined line coverage of the native sources from a gcovr JSON
summary, and every file under the threshold, lowest first.

Usage: coverage_summary.py SUMMARY.json [--under PERCENT]
Exit status 0 always: the figure is reported, not enforced.
"""

import argparse
import json

# Files whose low figure has a reason of its own, shown next to the figure.
EXPLAINED = {
    "native_sources/src/tidewright/sync/host/fake_host.cpp":
        "test double of the C++ tests: only the calls those tests make run",
    "native_sources/src/tidewright/sync/host/fake_host.hpp":
        "test double of the C++ tests: only the calls those tests make run",
}


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("summary")
    parser.add_argument("--under", type=float, default=80.0)
    args = parser.parse_args()
    with open(args.summary, encoding="utf-8") as handle:
        data = json.load(handle)
    files = sorted(data["files"], key=lambda f: f["line_percent"])
    low = [f for f in files if f["line_percent"] < args.under]
    print(f"line coverage of native_sources/src: {data['line_percent']:.1f} % "
          f"({data['line_covered']} of {data['line_total']} lines, {len(files)} files)")
    if low:
        print(f"files under {args.under:g} %:")
        for f in low:
            note = EXPLAINED.get(f["filename"])
            print(f"  {f['line_percent']:5.1f} %  {f['line_covered']:5d}/{f['line_total']:<5d} {f['filename']}"
                  + (f"  ({note})" if note else ""))
    else:
        print(f"no file under {args.under:g} %")


if __name__ == "__main__":
    main()
