// Reader, transforming stage and writer of a frame stream, on three threads.
#include "stream/frame_pipeline.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <memory>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>
#include <vector>

#include "cli/tool_error.h"
#include "stream/slot_queue.h"

namespace kv_tool {
namespace {

// Left uninitialised: pages are first touched by the read or the transform that fills them.
using buffer = std::unique_ptr<uint16_t[]>;

buffer new_buffer(size_t bytes) {
    buffer b(new uint16_t[(bytes + 1) / 2]);
    advise_large_pages(b.get(), bytes);
    return b;
}

// Part of a frame as read.
struct band_slot {
    buffer input;
    uint64_t frame = 0;  // from 0, in the order read
    size_t first = 0, count = 0;
};

// A frame as written.
struct frame_slot {
    buffer output;
    uint64_t number = 0;
};

class frame_pipeline {
  public:
    frame_pipeline(raw_source& source, const raw_sink& sink, const frame_pipeline_shape& shape,
                   const frame_step& step, const frame_written& written)
        : source_(source), sink_(sink), shape_(shape), step_(step), written_(written) {}

    frame_pipeline_result run() {
        allocate();
        std::vector<std::thread> stages;
        try {
            stages.emplace_back([this] { guarded(&frame_pipeline::read_frames); });
            stages.emplace_back([this] { guarded(&frame_pipeline::transform_frames); });
        } catch (const std::system_error&) {
            fail(std::current_exception());
        }
        guarded(&frame_pipeline::write_frames);
        for (std::thread& t : stages) t.join();
        if (failure_) std::rethrow_exception(failure_);
        return result_;
    }

  private:
    size_t input_pixel_bytes() const { return shape_.input_bytes / shape_.pixels; }

    void allocate() {
        const size_t band_bytes = std::min(shape_.band_pixels, shape_.pixels) * input_pixel_bytes();
        try {
            bands_.resize(shape_.bands);
            for (band_slot& b : bands_) b.input = new_buffer(band_bytes);
            frames_.resize(shape_.frames);
            for (frame_slot& f : frames_) f.output = new_buffer(shape_.output_bytes);
        } catch (const std::bad_alloc&) {
            throw file_error(source_.name(), "not enough memory for " +
                                                 std::to_string(shape_.frames) + " frames of " +
                                                 std::to_string(shape_.output_bytes) + " bytes");
        }
        for (size_t i = 0; i < bands_.size(); ++i) free_bands_.push(i);
        for (size_t i = 0; i < frames_.size(); ++i) free_frames_.push(i);
    }

    // Reads frame after frame, band by band. A band cut short ends the stream unread by the
    // later stages; the bytes of its frame before it are the short frame's.
    void read_frames() {
        size_t slot = 0;
        for (uint64_t frame = 0;; ++frame) {
            for (size_t first = 0; first < shape_.pixels; first += shape_.band_pixels) {
                if (!free_bands_.pop(&slot)) return read_bands_.close();
                band_slot& b = bands_[slot];
                b.frame = frame;
                b.first = first;
                b.count = std::min(shape_.band_pixels, shape_.pixels - first);
                const size_t bytes = b.count * input_pixel_bytes();
                const size_t got = source_.read_up_to(b.input.get(), bytes, stop_);
                if (got < bytes) {
                    const size_t held = first * input_pixel_bytes() + got;
                    if (!stop_) result_.short_bytes = held;
                    return read_bands_.close();
                }
                read_bands_.push(slot);
            }
        }
    }

    // Transforms each band into its frame; a frame whose last band is done goes to the writer.
    void transform_frames() {
        size_t band = 0, frame = 0;
        while (read_bands_.pop(&band)) {
            const band_slot& b = bands_[band];
            if (b.first == 0 && !free_frames_.pop(&frame)) break;
            frame_slot& f = frames_[frame];
            f.number = b.frame;
            step_(b.input.get(), f.output.get(), b.first, b.count);
            const bool last = b.first + b.count == shape_.pixels;
            free_bands_.push(band);
            if (last) done_frames_.push(frame);
        }
        done_frames_.close();
    }

    void write_frames() {
        size_t slot;
        while (done_frames_.pop(&slot)) {
            const frame_slot& f = frames_[slot];
            const std::string failure = sink_(f.output.get(), shape_.output_bytes);
            if (!failure.empty()) {
                throw file_error(shape_.output_name,
                                 failure + "; frame " + std::to_string(f.number + 1) +
                                     " was not written whole, the " + std::to_string(f.number) +
                                     " before it were");
            }
            result_.frames = f.number + 1;
            written_(result_.frames);
            free_frames_.push(slot);
        }
    }

    void guarded(void (frame_pipeline::*stage)()) {
        try {
            (this->*stage)();
        } catch (...) {
            fail(std::current_exception());
        }
    }

    // The first failure ends the run: every stage stops at its next wait.
    void fail(std::exception_ptr failure) {
        {
            std::lock_guard<std::mutex> lock(failure_mutex_);
            if (!failure_) failure_ = failure;
        }
        stop_ = true;
        for (slot_queue* q : {&free_bands_, &read_bands_, &free_frames_, &done_frames_}) {
            q->abort();
        }
    }

    raw_source& source_;
    const raw_sink& sink_;
    const frame_pipeline_shape& shape_;
    const frame_step& step_;
    const frame_written& written_;
    std::vector<band_slot> bands_;
    std::vector<frame_slot> frames_;
    slot_queue free_bands_, read_bands_, free_frames_, done_frames_;
    std::atomic<bool> stop_{false};
    std::mutex failure_mutex_;
    std::exception_ptr failure_;
    frame_pipeline_result result_;
};

}  // namespace

frame_pipeline_result run_frame_pipeline(raw_source& source, const raw_sink& sink,
                                         const frame_pipeline_shape& shape, const frame_step& step,
                                         const frame_written& written) {
    return frame_pipeline(source, sink, shape, step, written).run();
}

}  // namespace kv_tool
