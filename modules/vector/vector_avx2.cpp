// The AVX2 build of the vector pipeline and the module's two transform exports. The only
// source compiled with AVX2 flags.
#include "modules/vector/vector_common.h"
#include "services/module_abi.h"

namespace kv {
namespace vector {
namespace avx2 {
#include "modules/vector/isa_avx2.h"
#include "modules/vector/vector_pipeline.h"
}  // namespace avx2
}  // namespace vector
}  // namespace kv

KV_MODULE_EXPORT int32_t
kv_color_processing_transform_8_bit_output_vector_avx2(const kv::transform_request* request) {
    return kv::vector::avx2::transform<8>(request);
}

KV_MODULE_EXPORT int32_t
kv_color_processing_transform_16_bit_output_vector_avx2(const kv::transform_request* request) {
    return kv::vector::avx2::transform<16>(request);
}

static_assert(std::is_same_v<decltype(&kv_color_processing_transform_8_bit_output_vector_avx2),
                             kv::abi::vector_transform_fn>);
static_assert(std::is_same_v<decltype(&kv_color_processing_transform_16_bit_output_vector_avx2),
                             kv::abi::vector_transform_fn>);
