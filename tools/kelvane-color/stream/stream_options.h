// What the command line may say beside --raw-input and --raw-output.
#pragma once

#include "cli/settings.h"

namespace kv_tool {

// Called once every option is read when --raw-input or --raw-output was given: takes the output
// width, channels and layouts from the raw formats and refuses what does not go with a stream.
// `layout_options`: --bits, --channels, --input-layout or --output-layout was given.
void check_stream_options(settings& s, bool layout_options);

}  // namespace kv_tool
