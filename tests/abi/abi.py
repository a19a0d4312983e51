#!/usr/bin/env python3
"""The binary interface of a built library against the one in the repository (libabigail).

    abi.py LIBRARY DUMP            fails, and says what is different, when a program built before would notice
    abi.py --dump LIBRARY DUMP     writes the dump anew, for a change that is meant
"""

import argparse
import pathlib
import subprocess
import sys

parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
parser.add_argument("--dump", action="store_true")
parser.add_argument("built", metavar="LIBRARY")
parser.add_argument("dump_file", metavar="DUMP")
arguments = parser.parse_args()

if arguments.dump:
    with open(arguments.dump_file, "wb") as out:
        subprocess.run(["abidw", "--exported-interfaces-only", "--no-show-locs", "--no-corpus-path", "--no-comp-dir-path", arguments.built],
                       stdout=out, check=True)
    sys.exit(0)

# Private types are left out by name: by the headers' directory, abidiff leaves out everything.
result = subprocess.run(["abidiff", "--suppressions", pathlib.Path(__file__).with_name("private.supp"), arguments.dump_file, arguments.built],
                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
if result.returncode != 0:
    sys.exit(f"the interface of {arguments.built} is not the one of {arguments.dump_file}:\n{result.stdout}\n"
             "If that is meant, write the file anew with --dump.")
