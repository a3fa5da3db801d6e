"""The examples of docs/python.md run as written."""

import os
import re
import subprocess
import sys


# What each example prints, in the page's order; the second needs the colour layer.
EXPECTED = [("KV_STATUS_INVALID_CLAMP (12)", "library: "),
            ("srgb to display-p3, 8 bits uint8", "(1, 4, 3) uint8",
             "KV_COLOR_LAYER_PROFILE_REFUSED")]


def test_documented_examples_run(tmp_path):
    with open(os.path.join(os.environ["KV_DOCS_DIR"], "python.md"), encoding="utf-8") as page:
        text = page.read(1 << 20)
    blocks = re.findall(r"^```python\n(.*?)^```", text, re.S | re.M)
    assert len(blocks) == len(EXPECTED), "docs/python.md should hold two python examples"
    for block, expected in zip(blocks, EXPECTED):
        if "Processor.converting" in block and "KELVANE_COLOR_LAYER_LIBRARY" not in os.environ:
            continue  # the colour layer was not built
        result = subprocess.run([sys.executable, "-c", block], capture_output=True, text=True,
                                cwd=tmp_path, timeout=300)
        assert result.returncode == 0, result.stderr
        for words in expected:
            assert words in result.stdout
