// The stream engine: a reader, a transforming stage and a writer, each its own function, joined
// by bounded queues: the reader hands each frame to the transforming stage in bands, which hands
// whole frames to the writer. The slots of those queues are the memory bound (a few bands in, two
// frames out), whatever the stream's length.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "stream/stream_io.h"

namespace kv_tool {

struct frame_pipeline_shape {
    size_t pixels = 0;        // of one frame
    size_t input_bytes = 0;   // one frame as read
    size_t output_bytes = 0;  // one frame as written
    // Frames are read in bands of this many pixels (a frame's last band may be smaller), `bands`
    // of them in flight, each transformed while its bytes are still in the cache; `frames` frames
    // as written are in flight: one being transformed into, one being written.
    size_t band_pixels = size_t(1) << 20;
    size_t bands = 4;
    size_t frames = 2;
    std::string output_name;  // for messages
};

// Turns `count` pixels as read at `input` into pixels [first, first + count) of the frame as
// written at `output` (the frame's start); it may change the input. Called from one thread, in
// frame order and band order.
using frame_step = std::function<void(uint16_t* input, void* output, size_t first, size_t count)>;
// Called on the writing thread after each frame written, with the count so far.
using frame_written = std::function<void(uint64_t frames)>;

struct frame_pipeline_result {
    uint64_t frames = 0;     // whole frames read, transformed and written
    size_t short_bytes = 0;  // what the stream held of a frame after the last whole one
};

// Runs the stream to its end. The first error of any stage (a read or write error, a refused
// transform) stops every stage and is thrown once all have stopped; a write error names the
// frame. A frame cut short is not an error here: every whole frame is written first and the
// result says how many bytes followed them.
frame_pipeline_result run_frame_pipeline(raw_source& source, const raw_sink& sink,
                                         const frame_pipeline_shape& shape, const frame_step& step,
                                         const frame_written& written);

}  // namespace kv_tool
