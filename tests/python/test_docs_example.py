"""The example of docs/python.md runs as written."""

import os
import re
import subprocess
import sys


def test_documented_example_runs(tmp_path):
    with open(os.path.join(os.environ["KV_DOCS_DIR"], "python.md"), encoding="utf-8") as page:
        text = page.read(1 << 20)
    blocks = re.findall(r"^```python\n(.*?)^```", text, re.S | re.M)
    assert len(blocks) == 1, "docs/python.md should hold exactly one python example"
    result = subprocess.run([sys.executable, "-c", blocks[0]], capture_output=True, text=True,
                            cwd=tmp_path, timeout=300)
    assert result.returncode == 0, result.stderr
    assert "KV_STATUS_INVALID_CLAMP (12)" in result.stdout
    assert "library: " in result.stdout
