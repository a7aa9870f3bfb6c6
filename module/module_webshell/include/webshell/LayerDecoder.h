#pragma once
// Static decoding of what a script hides under obfuscation layers, so that
// the rules can see the code the script would run. Nothing is executed: the
// decoder only recognises a fixed set of decoding calls and string tricks in
// the text and applies the same transformation itself.
//
// What it decodes, starting only where a cheap trigger is present (a known
// decoding call, a VBScript.Encode block, a run of numeric escapes):
//   - calls, nested ones resolved inside-out, on string literals (pieces
//     joined with "." "+" "&"): base64_decode, Convert.FromBase64String,
//     java.util.Base64 ...getDecoder().decode, sun.misc.BASE64Decoder
//     decodeBuffer, DatatypeConverter.parseBase64Binary, Base64.decodeBase64,
//     base64.b64decode, atob, gzinflate / gzuncompress / gzdecode (raw
//     deflate, zlib, gzip), zlib.decompress, str_rot13, strrev, hex2bin,
//     pack('H*', ...), parseHexBinary, unhexlify, rawurldecode, urldecode,
//     str_replace with literal arguments. A short result (a function name,
//     a statement) is put back in place of its call, all of a text's in one
//     layer; a longer one is a layer itself;
//   - folded string expressions: \x, \NNN and \u escapes, chr()/Chr()/ChrW()
//     and String.fromCharCode chains, literal concatenation, and the XOR of
//     two literals;
//   - VBScript.Encode / JScript.Encode blocks (#@~^ ... ^#~@);
//   - when the text names a decoder but hands it a variable, long base64 or
//     hex literals, through the same calls when they include base64, hex or
//     inflation (or as base64 and, for binary output, inflated when the call
//     is not visible).
//
// Bounds, per decoded file: a depth (decoding steps from the file), a total
// of decoded bytes (every output counts, inflation stops at what is left, so
// a decompression bomb cannot grow memory), a number of layers and a wall
// time budget that includes the caller's work on each layer. A layer equal to
// the file or to an earlier layer is dropped, so a layer that decodes to
// itself ends there.
//
// One object decodes one file at a time; it keeps no state between calls.

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace Engine {

// How string literals are written: C-like languages (PHP, Java, C#, Perl,
// Python, JavaScript) escape with a backslash; classic ASP's VBScript doubles
// the quote and starts a comment with an apostrophe.
enum class ScriptDialect { CLike, Basic };

struct DecodeLimits {
    // Onion-packed shells nest eval(gzinflate(str_rot13(base64_decode(...))))
    // fifty times and more, three steps and some 60 KiB a layer.
    int maxDepth = 256;
    std::size_t maxBytes = 16u << 20;
    std::size_t maxLayers = 256;
    std::chrono::milliseconds budget{1000};
};

struct DecodedLayer {
    int depth;                // decoding steps from the file: 1 for a direct decode
    const std::string& data;  // the decoded text
    const char* how;          // the last decoding applied, e.g. "gzinflate"
};

// Why decoding ended.
enum class DecodeEnd {
    Complete,    // nothing more to decode
    Stopped,     // the sink asked to stop
    DepthLimit,  // something was left undecoded at the depth limit
    ByteLimit,
    LayerLimit,
    TimeLimit,
};
const char* DecodeEndText(DecodeEnd end);

class LayerDecoder {
public:
    // Gets each new layer as soon as it is decoded, outer layers first;
    // returns false to stop decoding.
    using Sink = std::function<bool(const DecodedLayer&)>;

    explicit LayerDecoder(const DecodeLimits& limits = DecodeLimits());

    // True when `text` holds anything a decoder would start from; costs
    // about one pass over the text and allocates nothing.
    static bool HasTrigger(std::string_view text);

    // Decodes the layers of `file` (the file itself is not handed out).
    DecodeEnd Decode(std::string_view file, ScriptDialect dialect, const Sink& sink);

    // Figures of the last Decode.
    std::size_t LayerCount() const { return m_layers; }
    std::size_t DecodedBytes() const { return m_bytes; }

private:
    DecodeLimits m_limits;
    std::size_t m_layers = 0;
    std::size_t m_bytes = 0;
};

}  // namespace Engine
