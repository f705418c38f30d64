#!/usr/bin/python3
"""Works through the guides in a gateway, each from an empty directory: guides.py GUIDE...

A block of C, C++ or shell whose first comment begins with "NAME: " is written to the file NAME. The commands of a console
block are run, and what they print has to be what the block shows."""
import os
import pathlib
import re
import subprocess
import sys
import tempfile

FENCE = re.compile(r"^```(\w+)\n(.*?)^```$", re.M | re.S)


def file_name(code):
    first = re.match(r"(?:#!.*\n)?(?:/\*|//|#) ([\w.]+): ", code)
    return first.group(1) if first else None


def commands_of(block):
    """The commands of a console block with what each has to print."""
    for part in re.split(r"^\$ ", block, flags=re.M)[1:]:
        command, _, output = part.partition("\n")
        yield command, output


def work_through(guide):
    failures, ran = [], 0
    with tempfile.TemporaryDirectory() as directory:
        for language, text in FENCE.findall(guide.read_text()):
            name = file_name(text)
            if language == "console":
                for command, expected in commands_of(text):
                    result = subprocess.run(["bash", "-c", command], cwd=directory, text=True, check=False, timeout=120,
                                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
                    ran += 1
                    if result.stdout.rstrip() != expected.rstrip():
                        failures.append(f"{guide.name}: $ {command}\nexpected:\n{expected}printed:\n{result.stdout}")
            elif name:
                path = pathlib.Path(directory) / name
                path.write_text(text)
                path.chmod(0o755)
            elif language != "sh":
                failures.append(f"{guide.name}: a block of {language} without a file name in its first comment")
    if ran == 0:
        failures.append(f"{guide.name}: no command was run")
    print(f"{guide.name}: {ran} commands, {len(failures)} failures")
    return failures


def main(guides):
    here = pathlib.Path(__file__).resolve().parent
    os.environ["PATH"] = f"{here}/usr/bin:{os.environ['PATH']}"
    os.environ["PKG_CONFIG_PATH"] = f"{here}/usr/lib/pkgconfig"
    failures = [failure for guide in guides for failure in work_through(pathlib.Path(guide))]
    print("\n".join(failures))
    return 1 if failures or not guides else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
