// Arbitrary bytes through the layer decoder with its default bounds: no
// crash, no sanitizer finding, and the bounds hold whatever the input.
// The first byte picks the dialect; the rest is the file.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "webshell/LayerDecoder.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    const Engine::ScriptDialect dialect =
        (data[0] & 1) != 0 ? Engine::ScriptDialect::Basic : Engine::ScriptDialect::CLike;
    const std::string_view file(reinterpret_cast<const char*>(data + 1), size - 1);
    const Engine::DecodeLimits limits;
    Engine::LayerDecoder decoder(limits);
    std::size_t layers = 0;
    decoder.Decode(file, dialect, [&](const Engine::DecodedLayer& layer) {
        ++layers;
        if (layer.depth < 1 || layer.depth > limits.maxDepth || layer.data.size() > limits.maxBytes) {
            __builtin_trap();
        }
        return true;
    });
    if (layers != decoder.LayerCount() || layers > limits.maxLayers || decoder.DecodedBytes() > limits.maxBytes ||
        (layers > 0 && !Engine::LayerDecoder::HasTrigger(file))) {
        __builtin_trap();
    }
    return 0;
}
