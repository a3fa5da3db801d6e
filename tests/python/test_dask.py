"""The Dask recipe of docs/python-dask.md runs as written: a LocalCluster of two worker processes
converts a stack of frames (dask.array) and a folder of frames (dask.bag), identical to a local
run."""

import os
import re
import subprocess
import sys

import pytest


def test_dask_recipe_runs_on_worker_processes(tmp_path):
    pytest.importorskip("dask.distributed", reason="Dask is not installed (Debian: python3-dask "
                        "python3-distributed)")
    with open(os.path.join(os.environ["KV_DOCS_DIR"], "python-dask.md"), encoding="utf-8") as page:
        blocks = re.findall(r"^```python\n(.*?)^```", page.read(1 << 20), re.S | re.M)
    assert len(blocks) == 1, "docs/python-dask.md should hold exactly one python example"
    script = tmp_path / "kelvane_dask.py"
    script.write_text(blocks[0], encoding="utf-8")
    result = subprocess.run([sys.executable, str(script)], capture_output=True, text=True,
                            cwd=tmp_path, timeout=120)
    assert result.returncode == 0, result.stderr[-4000:]
    assert "dask.array: 8 frames identical to the local run" in result.stdout
    assert "dask.bag: 8 files identical to the local run" in result.stdout
