"""Installs the package with pip, offline, into a fresh virtual environment that sees the system's
packages (setuptools, wheel, numpy), then runs a transform with the installed copy.

    check_pip_install.py <package source folder> <work folder>
"""

import os
import shutil
import subprocess
import sys
import venv


def main(source, work):
    shutil.rmtree(work, ignore_errors=True)
    # A copy, so the build leaves nothing in the source tree.
    copy = os.path.join(work, "source")
    leftovers = shutil.ignore_patterns("__pycache__", "build", "*.egg-info")
    shutil.copytree(source, copy, ignore=leftovers)
    environment = os.path.join(work, "venv")
    venv.EnvBuilder(system_site_packages=True, with_pip=False).create(environment)
    python = os.path.join(environment, "bin", "python")
    subprocess.run([python, "-m", "pip", "install", "--no-build-isolation", "--no-deps",
                    "--no-index", "--quiet", copy], check=True, cwd=work)
    check = ("import kelvane_color as kc, numpy as np, sys\n"
             "assert kc.__file__.startswith(sys.prefix), kc.__file__\n"
             "with kc.Session(), kc.Processor() as p:\n"
             "    p.append_matrix([[2, 0, 0], [0, 1, 0], [0, 0, 1]])\n"
             "    out = p.transform(np.array([[1, 2, 3]], np.uint16))\n"
             "assert out.tolist() == [[1, 2, 6]], out\n"
             "print('installed at', kc.__file__)\n")
    # Without PYTHONPATH, which may name the source tree: the installed copy must be the one found.
    clean = {k: v for k, v in os.environ.items() if k != "PYTHONPATH"}
    subprocess.run([python, "-c", check], check=True, cwd=work, env=clean)


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    main(sys.argv[1], sys.argv[2])
