// What a frame stream tells its user: a progress line on standard error while it runs, and a
// summary line and JSON record when it ends.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace kv_tool {

struct stream_summary {
    uint64_t frames = 0;  // written whole
    uint64_t bytes_in = 0, bytes_out = 0;
    double seconds = 0;
    int32_t width = 0, height = 0;
    std::string input_format, output_format, tier;
    unsigned threads = 1;
    bool complete = true;  // false: a frame cut short or an error ended the run
};

// On a terminal one line rewritten in place, at most four times a second; elsewhere (a log file)
// a line every five seconds. Nothing when not shown.
class stream_progress {
  public:
    stream_progress(bool shown, bool terminal);
    void frame_written(uint64_t frames);
    // Ends the line on a terminal, before any other message.
    void finish();

  private:
    using clock = std::chrono::steady_clock;
    bool shown_, terminal_, pending_ = false;
    clock::time_point start_, last_;
};

// "kelvane-color: 8 frames 64x48 rgb48le -> rgb24 in 0.02 s, 400.0 fps, 1.2 Mpix/s; tier avx512,
// 2 threads".
std::string summary_line(const stream_summary& s);
std::string summary_json(const stream_summary& s);

}  // namespace kv_tool
