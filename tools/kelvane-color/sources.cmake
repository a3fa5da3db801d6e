# kelvane-color's sources by folder, relative to this folder: one list for the tool and for the
# fuzz targets (fuzz/CMakeLists.txt), which build the parsers without the library.

# What reads the command line, image files and .cube files, and needs nothing of the library.
set(KV_TOOL_PARSER_SOURCES
  cli/option_table.cpp
  cli/option_values.cpp
  cli/parse.cpp
  cli/printable.cpp
  image/image.cpp
  image/netpbm.cpp
  image/prechecks.cpp
  image/samples.cpp
  pipeline/curves.cpp
  pipeline/file_access.cpp
  pipeline/interruption.cpp
  pipeline/plan.cpp
  stream/raw_format.cpp
  stream/stream_options.cpp)
# The formats of the libraries found at build time (libpng, libtiff; off Windows).
set(KV_TOOL_PNG_SOURCES image/png.cpp)
set(KV_TOOL_TIFF_SOURCES image/tiff.cpp)
# Profiles put into encoded PNG and TIFF bytes (needs zlib; used by the Windows codecs).
set(KV_TOOL_EMBEDDING_SOURCES image/profile_embedding.cpp)
# The Windows Imaging Component (Windows only).
set(KV_TOOL_WIC_SOURCES image/wic.cpp)
# The rest: modes, --help, the chart, the processor and its runs, colour conversions and
# profiles, the machine probe, bench.
set(KV_TOOL_HOST_SOURCES
  bench/bench.cpp
  bench/report.cpp
  cli/application.cpp
  cli/help.cpp
  image/chart.cpp
  pipeline/batch.cpp
  pipeline/color.cpp
  pipeline/processing.cpp
  pipeline/profile_info.cpp
  pipeline/run.cpp
  pipeline/system_probe.cpp
  stream/frame_pipeline.cpp
  stream/stream_io.cpp
  stream/stream_mode.cpp
  stream/stream_report.cpp)
