// Progress, summary line and JSON record of a frame stream.
#include "stream/stream_report.h"

#include <cstdio>

namespace kv_tool {
namespace {

double per_second(double amount, double seconds) {
    return seconds > 0 ? amount / seconds : 0;
}

double megapixels(const stream_summary& s) {
    return double(s.frames) * double(s.width) * double(s.height) / 1e6;
}

std::string format(const char* pattern, double a, double b, double c) {
    char text[96];
    std::snprintf(text, sizeof text, pattern, a, b, c);
    return text;
}

}  // namespace

stream_progress::stream_progress(bool shown, bool terminal)
    : shown_(shown), terminal_(terminal), start_(clock::now()), last_(start_) {}

void stream_progress::frame_written(uint64_t frames) {
    if (!shown_) return;
    const clock::time_point now = clock::now();
    if (now - last_ < (terminal_ ? std::chrono::milliseconds(250) : std::chrono::seconds(5))) {
        return;
    }
    last_ = now;
    const double seconds = std::chrono::duration<double>(now - start_).count();
    std::fprintf(stderr,
                 terminal_ ? "\rkelvane-color: %llu frames, %.1f fps\x1b[K"
                           : "kelvane-color: %llu frames, %.1f fps\n",
                 static_cast<unsigned long long>(frames), per_second(double(frames), seconds));
    std::fflush(stderr);
    pending_ = terminal_;
}

void stream_progress::finish() {
    if (pending_) std::fputc('\n', stderr);
    pending_ = false;
}

std::string summary_line(const stream_summary& s) {
    return "kelvane-color: " + std::to_string(s.frames) + " frames " + std::to_string(s.width) +
           "x" + std::to_string(s.height) + " " + s.input_format + " -> " + s.output_format +
           format(" in %.2f s, %.1f fps, %.1f Mpix/s", s.seconds,
                  per_second(double(s.frames), s.seconds), per_second(megapixels(s), s.seconds)) +
           "; tier " + s.tier + ", " + std::to_string(s.threads) + " threads\n";
}

std::string summary_json(const stream_summary& s) {
    // Every text here is a name from the tool's own tables: none needs escaping.
    return "{\n  \"frames\": " + std::to_string(s.frames) +
           ",\n  \"complete\": " + (s.complete ? "true" : "false") +
           ",\n  \"width\": " + std::to_string(s.width) +
           ",\n  \"height\": " + std::to_string(s.height) + ",\n  \"input_format\": \"" +
           s.input_format + "\",\n  \"output_format\": \"" + s.output_format +
           "\",\n  \"bytes_in\": " + std::to_string(s.bytes_in) +
           ",\n  \"bytes_out\": " + std::to_string(s.bytes_out) +
           format(",\n  \"seconds\": %.6f,\n  \"fps\": %.3f,\n  \"mpix_per_s\": %.3f", s.seconds,
                  per_second(double(s.frames), s.seconds), per_second(megapixels(s), s.seconds)) +
           ",\n  \"tier\": \"" + s.tier + "\",\n  \"threads\": " + std::to_string(s.threads) +
           "\n}\n";
}

}  // namespace kv_tool
