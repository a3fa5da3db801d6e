"""kelvane-color's raw frame streams as a whole program: frames through pipes, FIFOs and files,
checked against the numpy model of the pipeline (tests/python/pipeline_model.py), and ffmpeg as
the client that feeds and takes them. KV_TOOL names the program; KELVANE_TEST_SEED repeats a run."""

import json
import math
import os
import shutil
import subprocess
import threading

import numpy as np
import pytest

import pipeline_model as model

TOOL = os.environ["KV_TOOL"]
SEED = int(os.environ.get("KELVANE_TEST_SEED", "20261124"))
W, H = 64, 48
N = W * H
FFMPEG = shutil.which("ffmpeg")
needs_ffmpeg = pytest.mark.skipif(FFMPEG is None, reason="ffmpeg is not installed (Debian: ffmpeg)")

MATRIX = [1.2, -0.1, -0.1, -0.05, 1.1, -0.05, 0.02, -0.2, 1.18]
PIPELINE = ["--matrix", ",".join(map(str, MATRIX)), "--input-lut", "gamma:2.2",
            "--output-lut", "inverse-gamma:2.2", "--clamp", "g=1000:60000"]
# name: (layout, bits, channels, big endian)
FORMATS = {
    "rgb48le": (2, 16, 3, False), "bgr48le": (1, 16, 3, False),
    "rgb48be": (2, 16, 3, True), "bgr48be": (1, 16, 3, True),
    "rgb24": (2, 8, 3, False), "bgr24": (1, 8, 3, False),
    "rgba64le": (2, 16, 4, False), "bgra64le": (1, 16, 4, False),
}


def lround(v):
    whole = math.floor(v)
    return whole + (1 if v - whole >= 0.5 else 0)


def curve_table(power):
    """The tool's table of x ** power over 65536 entries, as its curves fill one."""
    return np.array([lround(min(max(math.pow(i / 65535.0, power), 0.0), 1.0) * 65535)
                     for i in range(65536)], np.uint32)


IN_LUT, OUT_LUT = curve_table(1 / 2.2), curve_table(2.2)


def expected(frames, in_format, out_format):
    """The model's output bytes for native uint16 frames (frames x pixels x 3, red green blue)
    read as `in_format` and written as `out_format`, with PIPELINE's settings."""
    n = frames.shape[1]
    in_layout = FORMATS[in_format][0]
    layout, bits, channels, big = FORMATS[out_format]
    matrix = model.append(np.eye(3, dtype=np.float32).ravel(), MATRIX)
    out = []
    for frame in frames:
        flat = np.ascontiguousarray(frame if in_layout == 2 else frame[:, ::-1]).ravel()
        wide = model.run(flat, n, in_layout, layout, matrix, [IN_LUT] * 3, [OUT_LUT] * 3,
                         [(0, 65535), (1000, 60000), (0, 65535)], (0, 0, 0), 16, channels)
        if channels == 4:
            wide[3::4] = 65535
        if bits == 8:
            wide = ((wide.astype(np.uint32) * 255 + 32767) // 65535).astype(np.uint8)
        out.append(wide.byteswap() if big else wide)
    return b"".join(f.tobytes() for f in out)


def as_input(frames, in_format):
    """Native frames (red green blue) as the bytes of an input format."""
    layout, _, _, big = FORMATS[in_format]
    ordered = frames if layout == 2 else frames[..., ::-1]
    data = np.ascontiguousarray(ordered, np.uint16)
    return (data.byteswap() if big else data).tobytes()


def random_frames(count, salt, pixels=N):
    rng = np.random.default_rng([SEED, salt])
    return rng.integers(0, 65536, (count, pixels, 3), dtype=np.uint16)


def kelvane(in_format, out_format, *extra, output="-", size=f"{W}x{H}"):
    return [TOOL, "--raw-input", f"{size}:{in_format}", "-", "--raw-output", out_format,
            "-o", output, *PIPELINE, *extra]


def run_tool(arguments, data, timeout=60):
    return subprocess.run(arguments, input=data, capture_output=True, timeout=timeout)


def ffmpeg(*arguments, data=None):
    done = subprocess.run([FFMPEG, "-v", "error", "-nostdin", "-y", *arguments], input=data,
                          capture_output=True, timeout=120)
    assert done.returncode == 0, done.stderr.decode(errors="replace")
    return done.stdout


def ffmpeg_pattern(frames):
    """ffmpeg's moving test pattern as rgb48le: frames x N x 3, red green blue."""
    raw = ffmpeg("-f", "lavfi", "-i", f"testsrc2=size={W}x{H}:rate=25", "-frames:v", str(frames),
                 "-f", "rawvideo", "-pix_fmt", "rgb48le", "-")
    return np.frombuffer(raw, "<u2").reshape(frames, N, 3)


@pytest.mark.parametrize("in_format", ["rgb48le", "bgr48le", "rgb48be", "bgr48be"])
@pytest.mark.parametrize("out_format", list(FORMATS))
def test_every_format_pair_matches_the_model(in_format, out_format):
    frames = random_frames(3, sum(map(ord, in_format + out_format)))
    done = run_tool(kelvane(in_format, out_format, "-q"), as_input(frames, in_format))
    assert done.returncode == 0, done.stderr.decode()
    assert done.stdout == expected(frames, in_format, out_format), f"seed {SEED}"
    assert done.stderr == b""


def test_thread_counts_give_the_same_bytes():
    # Frames of two bands (2**20 pixels and 1,024 more) cut into stripes (the library's C++
    # interface keeps stripes to 65,536 pixels or more, and to the number of cores).
    frames = random_frames(2, 1, 1024 * 1025)
    data = as_input(frames, "bgr48be")
    outputs = {t: run_tool(kelvane("bgr48be", "rgb48le", "-q", "--threads", str(t),
                                   size="1024x1025"), data)
               for t in (1, 2, 3, 7)}
    assert all(o.returncode == 0 for o in outputs.values())
    assert outputs[1].stdout == expected(frames, "bgr48be", "rgb48le"), f"seed {SEED}"
    assert len({o.stdout for o in outputs.values()}) == 1


# (width, height, bytes of the frame cut short): within its only band, and past its first band.
SHORT_CASES = [(W, H, 100), (1024, 1025, 6 * 2**20 + 100)]


@pytest.mark.parametrize("to_file", [False, True])
@pytest.mark.parametrize("width,height,held", SHORT_CASES)
def test_a_short_last_frame_is_reported_after_the_whole_frames(tmp_path, to_file, width, height,
                                                                 held):
    frames = random_frames(3, 2, width * height)
    data = as_input(frames, "rgb48le") + b"\x01" * held
    target = tmp_path / "out.raw"
    arguments = kelvane("rgb48le", "rgb48le", output=str(target) if to_file else "-",
                        size=f"{width}x{height}")
    done = run_tool(arguments, data)
    assert done.returncode == 1
    message = done.stderr.decode()
    assert (f"standard input: frame 4 is cut short: the stream ended after {held} of its "
            f"{width * height * 6} bytes; the 3 whole frames before it were written") in message
    written = target.read_bytes() if to_file else done.stdout
    assert written == expected(frames, "rgb48le", "rgb48le")
    assert [p.name for p in tmp_path.iterdir()] == (["out.raw"] if to_file else [])


@needs_ffmpeg
def test_a_closed_output_pipe_ends_the_run_with_a_message():
    source = subprocess.Popen([FFMPEG, "-v", "error", "-nostdin", "-re", "-f", "lavfi", "-i",
                               f"testsrc2=size={W}x{H}:rate=50", "-f", "rawvideo", "-pix_fmt",
                               "rgb48le", "-"], stdout=subprocess.PIPE)
    tool = subprocess.Popen(kelvane("rgb48le", "rgb48le"), stdin=source.stdout,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    source.stdout.close()
    tool.stdout.read(1)
    tool.stdout.close()  # the reader goes away while frames keep coming
    try:
        _, err = tool.communicate(timeout=20)
    finally:
        source.kill()
        source.wait()
    assert tool.returncode == 1, err.decode()
    assert "standard output: cannot write: Broken pipe (the program reading the output has " \
           "closed it); frame " in err.decode()


@needs_ffmpeg
def test_ffmpeg_frames_through_ffv1_come_back_as_the_model_says(tmp_path):
    frames = ffmpeg_pattern(4)
    source = subprocess.Popen([FFMPEG, "-v", "error", "-nostdin", "-f", "lavfi", "-i",
                               f"testsrc2=size={W}x{H}:rate=25", "-frames:v", "4", "-f",
                               "rawvideo", "-pix_fmt", "rgb48le", "-"], stdout=subprocess.PIPE)
    tool = subprocess.Popen(kelvane("rgb48le", "rgb48le", "--json", str(tmp_path / "run.json")),
                            stdin=source.stdout, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    source.stdout.close()
    encoder = subprocess.run([FFMPEG, "-v", "error", "-nostdin", "-f", "rawvideo", "-pix_fmt",
                              "rgb48le", "-s", f"{W}x{H}", "-r", "25", "-i", "-", "-c:v", "ffv1",
                              str(tmp_path / "out.mkv")], stdin=tool.stdout, capture_output=True,
                             timeout=120)
    tool.stdout.close()
    assert tool.wait(timeout=60) == 0 and source.wait(timeout=60) == 0, tool.stderr.read()
    assert encoder.returncode == 0, encoder.stderr.decode()
    assert b"4 frames 64x48 rgb48le -> rgb48le" in tool.stderr.read()
    decoded = ffmpeg("-i", str(tmp_path / "out.mkv"), "-f", "rawvideo", "-pix_fmt", "rgb48le",
                     "-")
    want = expected(frames, "rgb48le", "rgb48le")
    size = N * 6
    assert len(decoded) == len(want)
    for f in range(4):
        assert decoded[f * size:(f + 1) * size] == want[f * size:(f + 1) * size], f"frame {f}"
    record = json.loads((tmp_path / "run.json").read_text())
    assert record["frames"] == 4 and record["complete"] and record["bytes_in"] == 4 * size
    assert record["bytes_out"] == 4 * size and record["width"] == W and record["threads"] >= 1


@needs_ffmpeg
def test_8_bit_frames_become_an_image_sequence(tmp_path):
    frames = ffmpeg_pattern(3)
    converted = run_tool(kelvane("rgb48le", "rgb24", "-q"), as_input(frames, "rgb48le"))
    assert converted.returncode == 0, converted.stderr.decode()
    ffmpeg("-f", "rawvideo", "-pix_fmt", "rgb24", "-s", f"{W}x{H}", "-i", "-",
           str(tmp_path / "frame%03d.png"), data=converted.stdout)
    assert sorted(p.name for p in tmp_path.iterdir()) == [f"frame00{i}.png" for i in (1, 2, 3)]
    decoded = ffmpeg("-i", str(tmp_path / "frame%03d.png"), "-f", "rawvideo", "-pix_fmt",
                     "rgb24", "-")
    assert decoded == expected(frames, "rgb48le", "rgb24")


@pytest.mark.skipif(not hasattr(os, "mkfifo"), reason="no FIFOs on this system")
def test_a_FIFO_is_read_as_a_stream(tmp_path):
    frames = random_frames(2, 3)
    fifo = tmp_path / "frames.fifo"
    os.mkfifo(fifo)

    def feed():
        with open(fifo, "wb") as out:
            out.write(as_input(frames, "rgb48le"))

    writer = threading.Thread(target=feed)
    writer.start()
    arguments = kelvane("rgb48le", "bgr48le", "-q")
    arguments[3] = str(fifo)
    done = subprocess.run(arguments, capture_output=True, timeout=60)
    if writer.is_alive():  # the program never opened the FIFO: release the writer's open()
        os.close(os.open(fifo, os.O_RDONLY | os.O_NONBLOCK))
    writer.join(timeout=60)
    assert done.returncode == 0, done.stderr.decode()
    assert done.stdout == expected(frames, "rgb48le", "bgr48le")


REFUSED = [
    (["--raw-input", "64x48:rgb24", "-", "--raw-output", "rgb24", "-o", "-"], 2,
     "--raw-input: 'rgb24' is not an input format (rgb48le, bgr48le, rgb48be, bgr48be)"),
    (["--raw-input", "64x0:rgb48le", "-", "--raw-output", "rgb24", "-o", "-"], 2,
     "expected WIDTHxHEIGHT:FORMAT"),
    (["--raw-input", "64x48:rgb48le", "-", "--raw-output", "yuv420p", "-o", "-"], 2,
     "--raw-output: 'yuv420p' is not an output format"),
    (["--raw-input", "64x48:rgb48le", "-", "-o", "-"], 2, "--raw-input needs --raw-output"),
    (["in.png", "--raw-output", "rgb24", "-o", "-"], 2, "--raw-output goes with --raw-input"),
    (["--raw-input", "64x48:rgb48le", "-", "--raw-output", "rgb24"], 2,
     "--raw-output writes to -o FILE, or -o -"),
    (["--raw-input", "64x48:rgb48le", "-", "--raw-output", "rgb24", "-o", "-", "--bits", "16"], 2,
     "drop --bits"),
    (["--raw-input", "64x48:rgb48le", "-", "--raw-output", "rgb24", "-o", "-", "--json", "-"], 2,
     "--json -: standard output carries the frames"),
    (["--raw-input", "64x48:rgb48le", "/dev/zero", "--raw-output", "rgb24", "-o", "-"], 1,
     "/dev/zero: is a device"),
    (["--raw-input", "64x48:rgb48le", "frames.raw", "--raw-output", "rgb24", "-o",
      "./frames.raw"], 1, "./frames.raw: is the input frames.raw; not overwritten"),
    (["--raw-input", "64x48:rgb48le", "-", "--raw-output", "rgb24", "-o", "-", "--shift", "16"],
     4, "KV_STATUS_INVALID_SHIFT"),
]


@pytest.mark.parametrize("arguments,code,message", REFUSED)
def test_refused_streams_say_why_and_write_nothing(tmp_path, arguments, code, message):
    (tmp_path / "frames.raw").write_bytes(b"\x07" * N * 6)
    done = subprocess.run([TOOL, *arguments], input=b"", capture_output=True, cwd=tmp_path,
                          timeout=60)
    assert (done.returncode, done.stdout) == (code, b"")
    assert message in done.stderr.decode()
    assert (tmp_path / "frames.raw").read_bytes() == b"\x07" * N * 6
    assert [p.name for p in tmp_path.iterdir()] == ["frames.raw"]


CLF = """<?xml version="1.0" encoding="UTF-8"?>
<ProcessList id="grade" compCLFversion="3">
  <LUT1D inBitDepth="16i" outBitDepth="16f"><Array dim="3 1">0 0.25 1</Array></LUT1D>
  <Matrix inBitDepth="16f" outBitDepth="16f">
    <Array dim="3 3">0.9 0.1 0 0.05 0.9 0.05 0 0.1 0.9</Array>
  </Matrix>
  <LUT1D inBitDepth="16f" outBitDepth="16i"><Array dim="4 1">0 30000 50000 65535</Array></LUT1D>
</ProcessList>
"""


def pam_bytes(frame):
    """One native frame (pixels x 3) as a 16-bit PAM image of W x H."""
    header = f"P7\nWIDTH {W}\nHEIGHT {H}\nDEPTH 3\nMAXVAL 65535\nTUPLTYPE RGB\nENDHDR\n"
    return header.encode() + frame.astype(">u2").tobytes()


def pam_samples(data, bits):
    """The samples of a PAM file the tool wrote, red green blue, as the raw output's bytes."""
    body = data[data.index(b"ENDHDR\n") + 7:]
    return body if bits == 8 else np.frombuffer(body, ">u2").astype("<u2").tobytes()


# The colour options on a stream, against the same conversion of each frame as an untagged image
# file (taken as sRGB unless --from says otherwise): (options, output format, notes on stderr).
COLOR_CASES = [
    (["--to", "display-p3"], "rgb24", ["taken as sRGB", "raw outputs carry no colour profile"]),
    (["--from", "rec709", "--to", "rec2020"], "rgb48le", ["raw outputs carry no colour profile"]),
    (["--clf", "grade.clf"], "rgb48le", []),
    (["--to", "prophoto", "-q"], "rgb24", []),
]


@pytest.mark.parametrize("options,out_format,notes", COLOR_CASES)
def test_colour_options_convert_frames_as_image_files_convert(tmp_path, options, out_format,
                                                              notes):
    (tmp_path / "grade.clf").write_text(CLF)
    bits = FORMATS[out_format][1]
    frames = random_frames(2, 77)
    done = subprocess.run([TOOL, "--raw-input", f"{W}x{H}:bgr48be", "-", "--raw-output",
                           out_format, "-o", "-", *options], input=as_input(frames, "bgr48be"),
                          capture_output=True, cwd=tmp_path, timeout=60)
    assert done.returncode == 0, done.stderr.decode()
    files = []
    for i, frame in enumerate(frames):
        (tmp_path / f"in{i}.pam").write_bytes(pam_bytes(frame))
        converted = subprocess.run([TOOL, f"in{i}.pam", "--bits", str(bits), "-q", "-o",
                                    f"out{i}.pam", *[o for o in options if o != "-q"]],
                                   capture_output=True, cwd=tmp_path, timeout=60)
        assert converted.returncode == 0, converted.stderr.decode()
        files.append(pam_samples((tmp_path / f"out{i}.pam").read_bytes(), bits))
    assert done.stdout == b"".join(files), f"seed {SEED}"
    said = done.stderr.decode()
    for note in notes:
        assert said.count(note) == 1, said
    assert ("taken as sRGB" in said) == ("taken as sRGB" in notes)
