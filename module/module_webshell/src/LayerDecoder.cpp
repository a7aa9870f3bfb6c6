#include "webshell/LayerDecoder.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <deque>
#include <unordered_set>
#include <vector>

namespace Engine {

namespace {

using Clock = std::chrono::steady_clock;

// A decoded literal shorter than this is not worth a scan of its own.
const std::size_t kMinLayerSize = 8;
// Decoded text shorter than this (a function name, a short statement) is
// put back in place of the call that made it, where its context tells the
// rules what it is for; longer text becomes a layer of its own.
const std::size_t kInlineLimit = 256;
// Literals decoded without a visible call must be at least this long.
const std::size_t kMinSpeculativeLiteral = 40;
// Per layer: distinct "decoder applied to a variable" chains remembered, and
// literals tried with them.
const std::size_t kMaxHoleChains = 4;
const std::size_t kMaxSpeculativeLiterals = 16;
// Output of a check for text: how much of a buffer is looked at, and the
// share of text bytes needed.
const std::size_t kTextSample = 4096;
const unsigned kTextPercent = 85;
// Numeric escapes in a layer before its string expressions are folded.
const std::size_t kEscapeTrigger = 4;
// Nesting of parentheses inside a chr() argument.
const int kMaxArgumentNesting = 8;
// How often long loops look at the clock.
const std::size_t kClockStride = 1u << 16;

// ---------------------------------------------------------------- bytes

inline bool IsLetter(unsigned char c) { return (c | 0x20) >= 'a' && (c | 0x20) <= 'z'; }
inline bool IsDigit(unsigned char c) { return c >= '0' && c <= '9'; }
inline bool IsIdentChar(unsigned char c) { return IsLetter(c) || IsDigit(c) || c == '_'; }
inline bool IsSpace(unsigned char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}
inline int HexValue(unsigned char c)
{
    if (IsDigit(c)) {
        return c - '0';
    }
    const unsigned char lower = c | 0x20;
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}
inline char Lower(unsigned char c) { return static_cast<char>(c >= 'A' && c <= 'Z' ? c | 0x20 : c); }

void AppendUtf8(std::string& out, uint32_t cp)
{
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

std::size_t Find(std::string_view s, std::string_view needle, std::size_t from = 0)
{
    if (from >= s.size()) {
        return std::string_view::npos;
    }
    const void* hit = memmem(s.data() + from, s.size() - from, needle.data(), needle.size());
    return hit == nullptr ? std::string_view::npos : static_cast<const char*>(hit) - s.data();
}

std::size_t SkipSpace(std::string_view s, std::size_t pos)
{
    while (pos < s.size() && IsSpace(static_cast<unsigned char>(s[pos]))) {
        ++pos;
    }
    return pos;
}

// Mostly printable ASCII, line breaks, tabs and well-formed UTF-8: the
// output of a decoder that found code rather than noise.
bool LooksLikeText(std::string_view s)
{
    const std::size_t n = std::min(s.size(), kTextSample);
    if (n == 0) {
        return false;
    }
    std::size_t text = 0;
    for (std::size_t i = 0; i < n;) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        if ((c >= 0x20 && c < 0x7F) || c == '\t' || c == '\n' || c == '\r') {
            ++text;
            ++i;
            continue;
        }
        std::size_t len = c >= 0xF0 && c <= 0xF4 ? 4 : c >= 0xE0 ? 3 : c >= 0xC2 && c < 0xE0 ? 2 : 0;
        bool valid = len > 0 && i + len <= n;
        for (std::size_t k = 1; valid && k < len; ++k) {
            valid = (static_cast<unsigned char>(s[i + k]) & 0xC0) == 0x80;
        }
        if (valid) {
            text += len;
            i += len;
        } else {
            ++i;
        }
    }
    return text * 100 >= n * kTextPercent;
}

// A Java class file, what the base64 class loaders of JSP shells carry.
bool IsClassFile(std::string_view s)
{
    return s.size() >= 4 && static_cast<unsigned char>(s[0]) == 0xCA && static_cast<unsigned char>(s[1]) == 0xFE &&
           static_cast<unsigned char>(s[2]) == 0xBA && static_cast<unsigned char>(s[3]) == 0xBE;
}

// ---------------------------------------------------------------- calls

enum class Step : unsigned char {
    Base64, InflateRaw, InflateZlib, InflateGzip, InflateAny, Rot13, Reverse, Hex, UrlRaw, Url, Replace,
};

const char* StepName(Step step)
{
    switch (step) {
    case Step::Base64: return "base64";
    case Step::InflateRaw: return "gzinflate";
    case Step::InflateZlib: return "gzuncompress";
    case Step::InflateGzip: return "gzdecode";
    case Step::InflateAny: return "inflate";
    case Step::Rot13: return "str_rot13";
    case Step::Reverse: return "strrev";
    case Step::Hex: return "hex2bin";
    case Step::UrlRaw: return "rawurldecode";
    case Step::Url: return "urldecode";
    case Step::Replace: return "str_replace";
    }
    return "?";
}

enum class CallKind : unsigned char { Decoder, Pack, Replace, CharCode };

struct KnownCall {
    std::string_view name;       // matched without regard to case, as PHP does
    CallKind kind;
    Step step;
    std::string_view qualifier;  // must precede the name (blanks ignored)
};

const KnownCall kCalls[] = {
    {"base64_decode", CallKind::Decoder, Step::Base64, ""},
    {"frombase64string", CallKind::Decoder, Step::Base64, ""},   // .NET Convert
    {"decodebuffer", CallKind::Decoder, Step::Base64, ""},       // sun.misc.BASE64Decoder
    {"parsebase64binary", CallKind::Decoder, Step::Base64, ""},  // DatatypeConverter
    {"b64decode", CallKind::Decoder, Step::Base64, ""},          // Python
    {"decode_base64", CallKind::Decoder, Step::Base64, ""},      // Perl MIME::Base64
    {"decode", CallKind::Decoder, Step::Base64, "Decoder()."},   // java.util.Base64
    {"decodebase64", CallKind::Decoder, Step::Base64, ""},       // Apache commons-codec
    {"decodebytes", CallKind::Decoder, Step::Base64, "base64."}, // Python
    {"decodestring", CallKind::Decoder, Step::Base64, "base64."},
    {"atob", CallKind::Decoder, Step::Base64, ""},               // JavaScript
    {"gzinflate", CallKind::Decoder, Step::InflateRaw, ""},
    {"gzuncompress", CallKind::Decoder, Step::InflateZlib, ""},
    {"gzdecode", CallKind::Decoder, Step::InflateGzip, ""},
    {"decompress", CallKind::Decoder, Step::InflateAny, "zlib."},
    {"str_rot13", CallKind::Decoder, Step::Rot13, ""},
    {"strrev", CallKind::Decoder, Step::Reverse, ""},
    {"hex2bin", CallKind::Decoder, Step::Hex, ""},
    {"parsehexbinary", CallKind::Decoder, Step::Hex, ""},        // DatatypeConverter
    {"unhexlify", CallKind::Decoder, Step::Hex, ""},             // Python binascii
    {"pack", CallKind::Pack, Step::Hex, ""},
    {"rawurldecode", CallKind::Decoder, Step::UrlRaw, ""},
    {"urldecode", CallKind::Decoder, Step::Url, ""},
    {"str_replace", CallKind::Replace, Step::Replace, ""},
    {"chr", CallKind::CharCode, Step::Hex, ""},
    {"chrw", CallKind::CharCode, Step::Hex, ""},
    {"chrb", CallKind::CharCode, Step::Hex, ""},
    {"fromcharcode", CallKind::CharCode, Step::Hex, ""},
};
const std::size_t kMaxNameLength = 17;

const KnownCall* LookupCall(const char* name, std::size_t length)
{
    if (length < 3 || length > kMaxNameLength) {
        return nullptr;
    }
    for (const KnownCall& call : kCalls) {
        if (call.name.size() != length || call.name[0] != Lower(static_cast<unsigned char>(name[0]))) {
            continue;
        }
        std::size_t i = 1;
        while (i < length && call.name[i] == Lower(static_cast<unsigned char>(name[i]))) {
            ++i;
        }
        if (i == length) {
            return &call;
        }
    }
    return nullptr;
}

// `qualifier` ends right before `pos`, blanks in the text ignored.
bool PrecededBy(std::string_view s, std::size_t pos, std::string_view qualifier)
{
    std::size_t q = qualifier.size();
    while (q > 0) {
        while (pos > 0 && IsSpace(static_cast<unsigned char>(s[pos - 1]))) {
            --pos;
        }
        if (pos == 0 || s[pos - 1] != qualifier[q - 1]) {
            return false;
        }
        --pos;
        --q;
    }
    return true;
}

// One decoding call of a chain; str_replace carries its two literal
// arguments.
struct StepCall {
    Step step;
    std::string search;
    std::string replace;
    bool operator==(const StepCall& other) const
    {
        return step == other.step && search == other.search && replace == other.replace;
    }
};
using Steps = std::vector<StepCall>;

struct CallSite {
    std::size_t nameBegin;
    std::size_t paren;
    const KnownCall* call;
};

// Calls `f` for every known call in `s` (a known name right before a "("),
// in order, until it returns false.
template <typename F>
void ForEachCall(std::string_view s, F&& f)
{
    const char* base = s.data();
    std::size_t pos = 0;
    while (pos < s.size()) {
        const void* hit = memchr(base + pos, '(', s.size() - pos);
        if (hit == nullptr) {
            return;
        }
        const std::size_t paren = static_cast<const char*>(hit) - base;
        pos = paren + 1;
        std::size_t end = paren;
        for (int blanks = 0; end > 0 && blanks < 4 && IsSpace(static_cast<unsigned char>(base[end - 1])); ++blanks) {
            --end;
        }
        std::size_t begin = end;
        while (begin > 0 && end - begin <= kMaxNameLength && IsIdentChar(static_cast<unsigned char>(base[begin - 1]))) {
            --begin;
        }
        const KnownCall* call = LookupCall(base + begin, end - begin);
        if (call == nullptr || (begin > 0 && IsIdentChar(static_cast<unsigned char>(base[begin - 1])))) {
            continue;
        }
        if (!call->qualifier.empty() && !PrecededBy(s, begin, call->qualifier)) {
            continue;
        }
        if (!f(CallSite{begin, paren, call})) {
            return;
        }
    }
}

// The text names a decoder without calling it (a variable function).
bool MentionsDecoder(std::string_view s)
{
    return Find(s, "ase64") != std::string_view::npos || Find(s, "ASE64") != std::string_view::npos ||
           Find(s, "inflate") != std::string_view::npos;
}

// The text runs code and joins string literals ("gzin"."flate("): the code
// it runs may be spelled in pieces, so the pieces are joined before calls
// are looked for.
bool EvalsJoinedLiterals(std::string_view s)
{
    if (Find(s, "eval") == std::string_view::npos && Find(s, "EVAL") == std::string_view::npos &&
        Find(s, "assert") == std::string_view::npos) {
        return false;
    }
    auto quote = [](char c) { return c == '"' || c == '\''; };
    std::size_t pos = 0;
    while (pos < s.size()) {
        const void* hit = memchr(s.data() + pos, '.', s.size() - pos);
        if (hit == nullptr) {
            return false;
        }
        const std::size_t at = static_cast<const char*>(hit) - s.data();
        std::size_t before = at;
        while (before > 0 && IsSpace(static_cast<unsigned char>(s[before - 1])) && at - before < 8) {
            --before;
        }
        std::size_t after = at + 1;
        while (after < s.size() && IsSpace(static_cast<unsigned char>(s[after])) && after - at < 8) {
            ++after;
        }
        if (before > 0 && after < s.size() && quote(s[before - 1]) && quote(s[after])) {
            return true;
        }
        pos = at + 1;
    }
    return false;
}

std::size_t CountNumericEscapes(std::string_view s, std::size_t enough)
{
    std::size_t count = 0;
    std::size_t pos = 0;
    while (count < enough && pos + 2 < s.size()) {
        const void* hit = memchr(s.data() + pos, '\\', s.size() - pos - 2);
        if (hit == nullptr) {
            break;
        }
        const std::size_t at = static_cast<const char*>(hit) - s.data();
        const unsigned char next = static_cast<unsigned char>(s[at + 1]);
        const unsigned char after = static_cast<unsigned char>(s[at + 2]);
        if ((next == 'x' && HexValue(after) >= 0) || (next == 'u' && (HexValue(after) >= 0 || after == '{')) ||
            (next >= '0' && next <= '7' && after >= '0' && after <= '7')) {
            ++count;
        }
        pos = at + 2;
    }
    return count;
}

// ------------------------------------------------------ string expressions

// Reads string literals and the expressions built from them: pieces joined
// by "." "+" "&", chr()-style calls, and "^" (PHP's XOR of two strings).
class StringReader {
public:
    StringReader(std::string_view s, ScriptDialect dialect) : m_s(s), m_dialect(dialect) {}

    bool IsQuote(char c) const { return c == '"' || (c == '\'' && m_dialect == ScriptDialect::CLike); }

    struct Expr {
        std::string value;
        std::size_t end = 0;
        int atoms = 0;
        bool decoded = false;  // a numeric escape or a character code was turned into text
    };

    // The expression starting at `pos` (a quote or a chr-style name).
    bool ReadExpr(std::size_t pos, Expr& expr)
    {
        std::string term;
        std::string xorred;
        bool haveXor = false;
        std::size_t p = pos;
        for (;;) {
            std::string atom;
            std::size_t end = 0;
            if (!ReadAtom(p, atom, end, expr.decoded)) {
                if (expr.atoms == 0) {
                    return false;
                }
                break;
            }
            term += atom;
            ++expr.atoms;
            expr.end = end;
            const std::size_t op = SkipSpace(m_s, end);
            if (op + 1 >= m_s.size()) {
                break;
            }
            const char c = m_s[op];
            const char next = m_s[op + 1];
            const bool concat = c == '.' || c == '+' || c == '&';
            const bool isXor = c == '^' && m_dialect == ScriptDialect::CLike;
            // ".=", "+=", "&&", "..." and "++" are not joins of two strings.
            if ((!concat && !isXor) || next == '=' || next == c) {
                break;
            }
            if (isXor) {
                Xor(haveXor, xorred, term);
                haveXor = true;
                term.clear();
            }
            p = SkipSpace(m_s, op + 1);
        }
        if (haveXor) {
            // A trailing "^ <non-literal>" left term empty: the XOR is unknown.
            if (term.empty()) {
                expr.value = xorred;
                return true;
            }
            Xor(true, xorred, term);
            expr.value = std::move(xorred);
            expr.decoded = true;
        } else {
            expr.value = std::move(term);
        }
        return true;
    }

private:
    static void Xor(bool haveLeft, std::string& left, const std::string& right)
    {
        if (!haveLeft) {
            left = right;
            return;
        }
        const std::size_t n = std::min(left.size(), right.size());
        left.resize(n);
        for (std::size_t i = 0; i < n; ++i) {
            left[i] = static_cast<char>(left[i] ^ right[i]);
        }
    }

    bool ReadAtom(std::size_t pos, std::string& value, std::size_t& end, bool& decoded)
    {
        if (pos >= m_s.size()) {
            return false;
        }
        if (IsQuote(m_s[pos])) {
            return ReadLiteral(pos, value, end, decoded);
        }
        std::size_t nameEnd = pos;
        while (nameEnd < m_s.size() && IsIdentChar(static_cast<unsigned char>(m_s[nameEnd]))) {
            ++nameEnd;
        }
        const KnownCall* call = LookupCall(m_s.data() + pos, nameEnd - pos);
        if (call == nullptr || call->kind != CallKind::CharCode) {
            return false;
        }
        std::size_t p = SkipSpace(m_s, nameEnd);
        if (p >= m_s.size() || m_s[p] != '(') {
            return false;
        }
        const bool wide = call->name != "chr" && call->name != "chrb";
        ++p;
        for (;;) {
            int64_t code = 0;
            if (!ReadNumber(p, code, 0)) {
                return false;
            }
            if (wide) {
                if (code < 0 || code > 0x10FFFF) {
                    return false;
                }
                AppendUtf8(value, static_cast<uint32_t>(code));
            } else {
                value += static_cast<char>(((code % 256) + 256) % 256);
            }
            p = SkipSpace(m_s, p);
            if (p < m_s.size() && m_s[p] == ',' && call->name == "fromcharcode") {
                ++p;
                continue;
            }
            if (p < m_s.size() && m_s[p] == ')') {
                end = p + 1;
                decoded = true;
                return true;
            }
            return false;
        }
    }

    // A small integer expression: numbers (decimal, 0x.., &H.., leading-0
    // octal, optionally quoted), parentheses, + - * ^ from left to right.
    bool ReadNumber(std::size_t& p, int64_t& value, int nesting)
    {
        if (nesting > kMaxArgumentNesting) {
            return false;
        }
        bool first = true;
        char op = '+';
        for (;;) {
            p = SkipSpace(m_s, p);
            if (p >= m_s.size()) {
                return false;
            }
            int64_t term = 0;
            if (m_s[p] == '(') {
                ++p;
                if (!ReadNumber(p, term, nesting + 1)) {
                    return false;
                }
                p = SkipSpace(m_s, p);
                if (p >= m_s.size() || m_s[p] != ')') {
                    return false;
                }
                ++p;
            } else if (!ReadInteger(p, term)) {
                return false;
            }
            switch (op) {
            case '+': value = first ? term : value + term; break;
            case '-': value -= term; break;
            case '*': value *= term; break;
            default: value ^= term; break;
            }
            first = false;
            if (value > INT32_MAX || value < INT32_MIN) {
                return false;
            }
            const std::size_t q = SkipSpace(m_s, p);
            if (q < m_s.size() && (m_s[q] == '+' || m_s[q] == '-' || m_s[q] == '*' || m_s[q] == '^')) {
                op = m_s[q];
                p = q + 1;
                continue;
            }
            return true;
        }
    }

    bool ReadInteger(std::size_t& p, int64_t& value)
    {
        char quote = 0;
        if (IsQuote(m_s[p])) {
            quote = m_s[p++];
        }
        int base = 10;
        if (p + 1 < m_s.size() && m_s[p] == '0' && (m_s[p + 1] | 0x20) == 'x') {
            base = 16;
            p += 2;
        } else if (p + 1 < m_s.size() && m_s[p] == '&' && (m_s[p + 1] | 0x20) == 'h') {
            base = 16;
            p += 2;
        } else if (p + 1 < m_s.size() && m_s[p] == '0' && IsDigit(static_cast<unsigned char>(m_s[p + 1]))) {
            base = 8;
        }
        const std::size_t start = p;
        value = 0;
        while (p < m_s.size()) {
            const int digit = HexValue(static_cast<unsigned char>(m_s[p]));
            if (digit < 0 || digit >= base) {
                break;
            }
            value = value * base + digit;
            if (value > INT32_MAX) {
                return false;
            }
            ++p;
        }
        if (p == start) {
            return false;
        }
        if (quote != 0) {
            if (p >= m_s.size() || m_s[p] != quote) {
                return false;
            }
            ++p;
        }
        return true;
    }

    bool ReadLiteral(std::size_t pos, std::string& value, std::size_t& end, bool& decoded)
    {
        const char quote = m_s[pos];
        bool& unclosed = m_unclosed[quote == '"' ? 0 : 1];
        // Once a quote of this kind was found open to the end of the text,
        // later ones are not literals either: keeps the reading linear.
        if (unclosed) {
            return false;
        }
        const std::size_t n = m_s.size();
        std::size_t p = pos + 1;
        if (m_dialect == ScriptDialect::Basic) {
            for (; p < n; ++p) {
                const char c = m_s[p];
                if (c == '"') {
                    if (p + 1 < n && m_s[p + 1] == '"') {
                        value += '"';
                        ++p;
                        continue;
                    }
                    end = p + 1;
                    return true;
                }
                if (c == '\n') {
                    return false;  // VBScript strings do not span lines
                }
                value += c;
            }
            unclosed = true;
            return false;
        }
        while (p < n) {
            // Plain runs are copied whole: literals carry the payloads.
            std::size_t run = p;
            while (run < n && m_s[run] != quote && m_s[run] != '\\') {
                ++run;
            }
            value.append(m_s.data() + p, run - p);
            p = run;
            if (p >= n) {
                break;
            }
            if (m_s[p] == quote) {
                end = p + 1;
                return true;
            }
            if (p + 1 >= n) {
                value += '\\';
                ++p;
                continue;
            }
            p = ReadEscape(p, value, decoded);
        }
        unclosed = true;
        return false;
    }

    // The escape at `p` (a backslash); returns the position after it.
    std::size_t ReadEscape(std::size_t p, std::string& value, bool& decoded)
    {
        const std::size_t n = m_s.size();
        const char e = m_s[p + 1];
        switch (e) {
        case 'n': value += '\n'; return p + 2;
        case 't': value += '\t'; return p + 2;
        case 'r': value += '\r'; return p + 2;
        case 'v': value += '\v'; return p + 2;
        case 'f': value += '\f'; return p + 2;
        case 'e': value += '\x1b'; return p + 2;
        case '\\': case '\'': case '"': case '$': value += e; return p + 2;
        default: break;
        }
        if (e == 'x' && p + 2 < n && HexValue(static_cast<unsigned char>(m_s[p + 2])) >= 0) {
            int v = HexValue(static_cast<unsigned char>(m_s[p + 2]));
            std::size_t q = p + 3;
            if (q < n && HexValue(static_cast<unsigned char>(m_s[q])) >= 0) {
                v = v * 16 + HexValue(static_cast<unsigned char>(m_s[q]));
                ++q;
            }
            value += static_cast<char>(v);
            decoded = true;
            return q;
        }
        if (e >= '0' && e <= '7') {
            int v = 0;
            std::size_t q = p + 1;
            for (int k = 0; k < 3 && q < n && m_s[q] >= '0' && m_s[q] <= '7'; ++k, ++q) {
                v = v * 8 + (m_s[q] - '0');
            }
            value += static_cast<char>(v & 0xFF);
            decoded = true;
            return q;
        }
        if (e == 'u') {
            // \u{1F600} (PHP) or \u0041 (Java, JavaScript, C#).
            std::size_t q = p + 2;
            const bool braced = q < n && m_s[q] == '{';
            q += braced ? 1 : 0;
            uint32_t cp = 0;
            std::size_t digits = 0;
            while (q < n && digits < (braced ? 6u : 4u) && HexValue(static_cast<unsigned char>(m_s[q])) >= 0) {
                cp = cp * 16 + HexValue(static_cast<unsigned char>(m_s[q]));
                ++q;
                ++digits;
            }
            const bool ok = braced ? digits > 0 && q < n && m_s[q] == '}' : digits == 4;
            if (ok && cp <= 0x10FFFF) {
                AppendUtf8(value, cp);
                decoded = true;
                return braced ? q + 1 : q;
            }
        }
        value += '\\';
        value += e;
        return p + 2;
    }

    std::string_view m_s;
    ScriptDialect m_dialect;
    bool m_unclosed[2] = {false, false};
};

// ---------------------------------------------------------- script encoder

// The Windows Script Encoder (VBScript.Encode, JScript.Encode) substitutes
// each character below 128 other than <, > and @ through one of three
// tables, chosen by the character's position modulo 64 through a fixed
// pattern; @-escapes stand for line breaks and the characters that would
// break the surrounding page. kScriptDecode[t] maps an encoded character
// from 0x20 to 0x7F to its plain form (<, > and @ map to themselves);
// kScriptDecodeTab[t] is the plain form of an encoded tab.
const unsigned char kScriptDecode[3][96] = {
    {0x2E, 0x47, 0x7A, 0x56, 0x42, 0x6A, 0x2F, 0x26, 0x49, 0x41, 0x34, 0x32, 0x5B, 0x76, 0x72, 0x43,
     0x38, 0x39, 0x70, 0x45, 0x68, 0x71, 0x4F, 0x09, 0x62, 0x44, 0x23, 0x75, 0x3C, 0x7E, 0x3E, 0x5E,
     0x40, 0x77, 0x4A, 0x61, 0x5D, 0x22, 0x4B, 0x6F, 0x4E, 0x3B, 0x4C, 0x50, 0x67, 0x2A, 0x7D, 0x74,
     0x54, 0x2B, 0x2D, 0x2C, 0x30, 0x6E, 0x6B, 0x66, 0x35, 0x25, 0x21, 0x64, 0x4D, 0x52, 0x63, 0x3F,
     0x7B, 0x78, 0x29, 0x28, 0x73, 0x59, 0x33, 0x7F, 0x6D, 0x55, 0x53, 0x7C, 0x3A, 0x5F, 0x65, 0x46,
     0x58, 0x31, 0x69, 0x6C, 0x5A, 0x48, 0x27, 0x5C, 0x3D, 0x24, 0x79, 0x37, 0x60, 0x51, 0x20, 0x36},
    {0x2D, 0x75, 0x52, 0x60, 0x71, 0x5E, 0x49, 0x5C, 0x62, 0x7D, 0x29, 0x36, 0x20, 0x7C, 0x7A, 0x7F,
     0x6B, 0x63, 0x33, 0x2B, 0x68, 0x51, 0x66, 0x76, 0x31, 0x64, 0x54, 0x43, 0x3C, 0x3A, 0x3E, 0x7E,
     0x40, 0x45, 0x2C, 0x2A, 0x74, 0x27, 0x37, 0x44, 0x79, 0x59, 0x2F, 0x6F, 0x26, 0x72, 0x6A, 0x39,
     0x7B, 0x3F, 0x38, 0x77, 0x67, 0x53, 0x47, 0x34, 0x78, 0x5D, 0x30, 0x23, 0x5A, 0x5B, 0x6C, 0x48,
     0x55, 0x70, 0x69, 0x2E, 0x4C, 0x21, 0x24, 0x4E, 0x50, 0x09, 0x56, 0x73, 0x35, 0x61, 0x4B, 0x58,
     0x3B, 0x57, 0x22, 0x6D, 0x4D, 0x25, 0x28, 0x46, 0x4A, 0x32, 0x41, 0x3D, 0x5F, 0x4F, 0x42, 0x65},
    {0x32, 0x30, 0x21, 0x29, 0x5B, 0x38, 0x33, 0x3D, 0x58, 0x3A, 0x35, 0x65, 0x39, 0x5C, 0x56, 0x73,
     0x66, 0x4E, 0x45, 0x6B, 0x62, 0x59, 0x78, 0x5E, 0x7D, 0x4A, 0x6D, 0x71, 0x3C, 0x60, 0x3E, 0x53,
     0x40, 0x42, 0x27, 0x48, 0x72, 0x75, 0x31, 0x37, 0x4D, 0x52, 0x22, 0x54, 0x6A, 0x47, 0x64, 0x2D,
     0x20, 0x7F, 0x2E, 0x4C, 0x5D, 0x7E, 0x6C, 0x6F, 0x79, 0x74, 0x43, 0x26, 0x76, 0x25, 0x24, 0x2B,
     0x28, 0x23, 0x41, 0x34, 0x09, 0x2A, 0x44, 0x3F, 0x77, 0x3B, 0x55, 0x69, 0x61, 0x63, 0x50, 0x67,
     0x51, 0x49, 0x4F, 0x46, 0x68, 0x7C, 0x36, 0x70, 0x6E, 0x7A, 0x2F, 0x5F, 0x4B, 0x5A, 0x2C, 0x57},
};
const unsigned char kScriptDecodeTab[3] = {0x57, 0x6E, 0x7B};
const unsigned char kScriptTablePattern[64] = {
    0, 1, 2, 0, 1, 2, 1, 2, 2, 1, 2, 1, 0, 2, 1, 2, 0, 2, 1, 2, 0, 0, 1, 2, 2, 1, 0, 2, 1, 2, 2, 1,
    0, 0, 2, 1, 2, 1, 2, 0, 2, 0, 0, 1, 2, 0, 2, 1, 0, 2, 1, 2, 0, 0, 1, 2, 2, 0, 0, 1, 2, 0, 2, 1,
};

void DecodeScriptBlock(std::string_view block, std::string& out)
{
    unsigned position = 0;
    for (std::size_t i = 0; i < block.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(block[i]);
        if (c == '@' && i + 1 < block.size()) {
            char plain = 0;
            switch (block[i + 1]) {
            case '&': plain = '\n'; break;
            case '#': plain = '\r'; break;
            case '*': plain = '>'; break;
            case '!': plain = '<'; break;
            case '$': plain = '@'; break;
            default: break;
            }
            if (plain != 0) {
                out += plain;
                ++position;
                ++i;
                continue;
            }
        }
        if (c >= 0x80) {
            out += static_cast<char>(c);  // passes through and does not count
            continue;
        }
        const unsigned table = kScriptTablePattern[position % 64];
        ++position;
        if (c == '\t') {
            out += static_cast<char>(kScriptDecodeTab[table]);
        } else if (c >= 0x20 && c != '<' && c != '>' && c != '@') {
            out += static_cast<char>(kScriptDecode[table][c - 0x20]);
        } else {
            out += static_cast<char>(c);
        }
    }
}

// Replaces each #@~^LLLLLL== ... CCCCCC==^#~@ block by its plain text.
bool DecodeScriptEncoder(std::string_view s, std::string& out)
{
    std::size_t pos = 0;
    bool any = false;
    for (;;) {
        const std::size_t start = Find(s, "#@~^", pos);
        if (start == std::string_view::npos) {
            out.append(s.substr(pos));
            return any;
        }
        out.append(s.substr(pos, start - pos));
        std::size_t body = start + 4;
        if (body + 8 <= s.size() && s[body + 6] == '=' && s[body + 7] == '=') {
            body += 8;  // the length
        }
        const std::size_t stop = Find(s, "^#~@", body);
        std::size_t bodyEnd = stop == std::string_view::npos ? s.size() : stop;
        if (stop != std::string_view::npos && bodyEnd >= body + 8 && s[bodyEnd - 1] == '=' && s[bodyEnd - 2] == '=') {
            bodyEnd -= 8;  // the checksum
        }
        DecodeScriptBlock(s.substr(body, bodyEnd - body), out);
        any = true;
        pos = stop == std::string_view::npos ? s.size() : stop + 4;
    }
}

// --------------------------------------------------------------- session

class Session {
public:
    Session(const DecodeLimits& limits, ScriptDialect dialect, const LayerDecoder::Sink& sink)
        : m_limits(limits),
          m_dialect(dialect),
          m_sink(sink),
          m_deadline(Clock::now() + limits.budget),
          m_bytesLeft(limits.maxBytes)
    {
    }

    DecodeEnd Run(std::string_view file)
    {
        m_seen.insert(std::hash<std::string_view>()(file));
        Expand(file, 0);
        while (!m_done && !m_queue.empty()) {
            const Pending& next = m_queue.front();
            if (next.depth >= m_limits.maxDepth) {
                if (LayerDecoder::HasTrigger(next.data)) {
                    Note(DecodeEnd::DepthLimit);
                }
            } else {
                Expand(next.data, next.depth);
            }
            m_queue.pop_front();
        }
        return m_end;
    }

    std::size_t layers = 0;
    std::size_t bytes = 0;

private:
    struct Pending {
        int depth;
        std::string data;
    };

    // Records why decoding is incomplete; the first reason stays.
    void Note(DecodeEnd end)
    {
        if (m_end == DecodeEnd::Complete) {
            m_end = end;
        }
    }
    void Finish(DecodeEnd end)
    {
        m_end = end;
        m_done = true;
    }
    bool Expired()
    {
        if (!m_done && Clock::now() >= m_deadline) {
            Finish(DecodeEnd::TimeLimit);
        }
        return m_done;
    }
    bool Take(std::size_t n)
    {
        if (n > m_bytesLeft) {
            Note(DecodeEnd::ByteLimit);
            return false;
        }
        m_bytesLeft -= n;
        bytes += n;
        return true;
    }

    // Hands a new layer to the sink and queues it for further decoding.
    void Emit(int depth, std::string&& data, const char* how)
    {
        if (Expired() || data.size() < kMinLayerSize) {
            return;
        }
        if (depth > m_limits.maxDepth) {
            Note(DecodeEnd::DepthLimit);
            return;
        }
        if (!m_seen.insert(std::hash<std::string_view>()(data)).second) {
            return;  // the file itself or an earlier layer: a loop ends here
        }
        if (layers >= m_limits.maxLayers) {
            Finish(DecodeEnd::LayerLimit);
            return;
        }
        ++layers;
        // Deque elements stay in place when others are added or the front
        // is removed, so the reference handed out stays valid.
        m_queue.push_back(Pending{depth, std::move(data)});
        if (!m_sink(DecodedLayer{depth, m_queue.back().data, how})) {
            Finish(DecodeEnd::Stopped);
        }
    }

    static std::vector<CallSite> CallsOf(std::string_view text)
    {
        std::vector<CallSite> sites;
        ForEachCall(text, [&sites](const CallSite& site) {
            sites.push_back(site);
            return true;
        });
        return sites;
    }

    // One layer's decoding. Its whole-text rewrites (folded string
    // expressions, short results put back in place of their calls) make
    // one new layer together, so a large file is not copied once per kind
    // of rewrite; longer decoded texts are layers of their own.
    void Expand(std::string_view layer, int depth)
    {
        if (Expired()) {
            return;
        }
        std::vector<CallSite> sites = CallsOf(layer);
        bool decoderCall = false;
        bool charCode = false;
        for (const CallSite& site : sites) {
            (site.call->kind == CallKind::CharCode ? charCode : decoderCall) = true;
        }

        if (Find(layer, "#@~^") != std::string_view::npos && Take(layer.size())) {
            std::string plain;
            plain.reserve(layer.size());
            DecodeScriptEncoder(layer, plain);
            Emit(depth + 1, std::move(plain), "VBScript.Encode");
        }
        // Calls are read on the folded text, where split and escaped
        // literals have become plain ones.
        std::string folded;
        const bool didFold = (charCode || decoderCall || CountNumericEscapes(layer, kEscapeTrigger) >= kEscapeTrigger ||
                              EvalsJoinedLiterals(layer)) &&
                             Fold(layer, folded);
        const std::string_view text = didFold ? std::string_view(folded) : layer;
        if (didFold) {
            sites = CallsOf(text);
            decoderCall = std::any_of(sites.begin(), sites.end(),
                                      [](const CallSite& site) { return site.call->kind != CallKind::CharCode; });
        }

        std::vector<Steps> holeChains;
        std::vector<std::pair<std::size_t, std::size_t>> consumed;
        Inline inlined;
        std::size_t consumedEnd = 0;
        for (const CallSite& site : sites) {
            if (m_done) {
                return;
            }
            if (site.call->kind == CallKind::CharCode || site.nameBegin < consumedEnd) {
                continue;
            }
            Chain chain;
            ReadChain(text, site, depth, chain);
            consumedEnd = chain.end;
            if (chain.kind == Chain::Kind::Literal) {
                consumed.emplace_back(site.nameBegin, chain.end);
                ApplyExplicit(site, chain, depth, inlined);
            } else if (chain.kind == Chain::Kind::Hole && holeChains.size() < kMaxHoleChains &&
                       std::find(holeChains.begin(), holeChains.end(), chain.steps) == holeChains.end()) {
                holeChains.push_back(chain.steps);
            }
        }
        if (decoderCall || MentionsDecoder(text)) {
            Speculate(text, depth, holeChains, consumed);
        }
        const int rewriteDepth = depth + (didFold ? 1 : 0) + inlined.steps;
        if (!inlined.pieces.empty()) {
            std::string out;
            if (PutBack(text, inlined, out)) {
                Emit(rewriteDepth, std::move(out), "inline");
            }
        } else if (didFold) {
            Emit(rewriteDepth, std::move(folded), "fold");
        }
    }

    // Short decoded texts waiting to be put back in place of their calls.
    struct Inline {
        struct Piece {
            std::size_t begin;
            std::size_t end;
            std::string text;
        };
        std::vector<Piece> pieces;
        std::size_t bytes = 0;
        int steps = 0;
    };

    bool PutBack(std::string_view text, const Inline& inlined, std::string& out)
    {
        if (!Take(text.size() + inlined.bytes)) {
            return false;
        }
        out.reserve(text.size() + inlined.bytes);
        std::size_t pos = 0;
        for (const Inline::Piece& piece : inlined.pieces) {
            out.append(text.substr(pos, piece.begin - pos));
            out += '"';
            out += piece.text;
            out += '"';
            pos = piece.end;
        }
        out.append(text.substr(pos));
        return true;
    }

    // Folds the string expressions of `s` into `out`; false when nothing
    // changed (or the budget is spent).
    bool Fold(std::string_view s, std::string& out)
    {
        if (s.size() > m_bytesLeft) {
            Note(DecodeEnd::ByteLimit);
            return false;
        }
        StringReader reader(s, m_dialect);
        out.reserve(s.size());
        bool changed = false;
        std::size_t i = 0;
        std::size_t nextClock = kClockStride;
        while (i < s.size()) {
            if (i >= nextClock) {
                nextClock = i + kClockStride;
                if (Expired()) {
                    return false;
                }
            }
            const char c = s[i];
            if (reader.IsQuote(c)) {
                StringReader::Expr expr;
                if (!reader.ReadExpr(i, expr)) {
                    out += c;
                    ++i;
                    continue;
                }
                if (expr.atoms >= 2 || expr.decoded) {
                    out += c;
                    out += expr.value;
                    out += c;
                    changed = true;
                } else {
                    out.append(s.substr(i, expr.end - i));
                }
                i = expr.end;
                continue;
            }
            if (c == '\'' && m_dialect == ScriptDialect::Basic) {
                // A VBScript comment runs to the end of the line.
                const std::size_t eol = s.find('\n', i);
                const std::size_t stop = eol == std::string_view::npos ? s.size() : eol;
                out.append(s.substr(i, stop - i));
                i = stop;
                continue;
            }
            if (IsIdentChar(static_cast<unsigned char>(c)) && (i == 0 || !IsIdentChar(static_cast<unsigned char>(s[i - 1])))) {
                std::size_t e = i;
                while (e < s.size() && IsIdentChar(static_cast<unsigned char>(s[e]))) {
                    ++e;
                }
                const KnownCall* call = LookupCall(s.data() + i, e - i);
                StringReader::Expr expr;
                if (call != nullptr && call->kind == CallKind::CharCode && reader.ReadExpr(i, expr)) {
                    const char quote = '"';
                    out += quote;
                    out += expr.value;
                    out += quote;
                    changed = true;
                    i = expr.end;
                } else {
                    out.append(s.substr(i, e - i));
                    i = e;
                }
                continue;
            }
            if (c == '\\' && m_dialect == ScriptDialect::CLike && i + 5 < s.size() && s[i + 1] == 'u') {
                // Java reads \uXXXX anywhere in the source, not only in strings.
                uint32_t cp = 0;
                bool ok = true;
                for (std::size_t k = 2; k < 6 && ok; ++k) {
                    const int v = HexValue(static_cast<unsigned char>(s[i + k]));
                    ok = v >= 0;
                    cp = cp * 16 + static_cast<uint32_t>(v < 0 ? 0 : v);
                }
                if (ok) {
                    AppendUtf8(out, cp);
                    changed = true;
                    i += 6;
                    continue;
                }
            }
            out += c;
            ++i;
        }
        return changed && Take(out.size());
    }

    struct Chain {
        enum class Kind { Invalid, Literal, Hole } kind = Kind::Invalid;
        Steps steps;  // outermost first
        std::string literal;
        std::size_t end = 0;
    };

    // Reads name(name(...('literal'))) from a call site.
    void ReadChain(std::string_view s, const CallSite& site, int depth, Chain& chain)
    {
        StringReader reader(s, m_dialect);
        const KnownCall* call = site.call;
        std::size_t pos = site.paren + 1;
        bool tooDeep = false;
        for (;;) {
            chain.end = pos;
            // Leading literal arguments: pack('H*', data) (only the hex
            // format decodes) and str_replace(search, replace, subject).
            std::string search;
            std::string replace;
            const int leading = call->kind == CallKind::Pack ? 1 : call->kind == CallKind::Replace ? 2 : 0;
            for (int k = 0; k < leading; ++k) {
                StringReader::Expr arg;
                pos = SkipSpace(s, pos);
                if (pos >= s.size() || !reader.IsQuote(s[pos]) || !reader.ReadExpr(pos, arg)) {
                    chain.kind = Chain::Kind::Invalid;
                    return;
                }
                pos = SkipSpace(s, arg.end);
                if (pos >= s.size() || s[pos] != ',') {
                    chain.kind = Chain::Kind::Invalid;
                    return;
                }
                ++pos;
                if (call->kind == CallKind::Pack && (arg.value.empty() || arg.value[0] != 'H')) {
                    chain.kind = Chain::Kind::Invalid;
                    return;
                }
                (k == 0 ? search : replace) = std::move(arg.value);
            }
            if (call->kind == CallKind::Replace && search.empty()) {
                chain.kind = Chain::Kind::Invalid;
                return;
            }
            // Past the depth limit the rest of the nest is still read, so
            // that its inner calls are not taken for chains of their own.
            if (depth + static_cast<int>(chain.steps.size()) < m_limits.maxDepth) {
                chain.steps.push_back(StepCall{call->step, std::move(search), std::move(replace)});
            } else {
                tooDeep = true;
            }
            pos = SkipSpace(s, pos);
            while (pos < s.size() && s[pos] == '@') {
                pos = SkipSpace(s, pos + 1);  // PHP's error suppression
            }
            chain.end = pos;
            if (pos >= s.size()) {
                chain.kind = tooDeep ? Chain::Kind::Invalid : Chain::Kind::Hole;
                return;
            }
            if (reader.IsQuote(s[pos])) {
                StringReader::Expr expr;
                if (!reader.ReadExpr(pos, expr)) {
                    chain.kind = tooDeep ? Chain::Kind::Invalid : Chain::Kind::Hole;
                    return;
                }
                chain.kind = tooDeep ? Chain::Kind::Invalid : Chain::Kind::Literal;
                chain.literal = std::move(expr.value);
                chain.end = expr.end;
                if (tooDeep) {
                    Note(DecodeEnd::DepthLimit);
                }
                // The closing parentheses of the calls belong to the chain.
                for (std::size_t k = 0; k < chain.steps.size(); ++k) {
                    const std::size_t close = SkipSpace(s, chain.end);
                    if (close >= s.size() || s[close] != ')') {
                        break;
                    }
                    chain.end = close + 1;
                }
                return;
            }
            // The inner call may be qualified: base64.b64decode(,
            // new sun.misc.BASE64Decoder().decodeBuffer(, Base64.getDecoder().decode(.
            std::size_t e = ReadQualifiedName(s, pos);
            const std::size_t paren = SkipSpace(s, e);
            const KnownCall* inner = e > pos ? LookupCall(s.data() + pos, e - pos) : nullptr;
            if (inner == nullptr || inner->kind == CallKind::CharCode || paren >= s.size() || s[paren] != '(' ||
                (!inner->qualifier.empty() && !PrecededBy(s, pos, inner->qualifier))) {
                chain.kind = tooDeep ? Chain::Kind::Invalid : Chain::Kind::Hole;
                return;
            }
            call = inner;
            pos = paren + 1;
        }
    }

    // Moves `pos` to the last name of a dotted path ("new" and empty calls
    // in between are passed over) and returns the end of that name.
    static std::size_t ReadQualifiedName(std::string_view s, std::size_t& pos)
    {
        std::size_t e = pos;
        for (int parts = 0; parts < 8; ++parts) {
            while (e < s.size() && IsIdentChar(static_cast<unsigned char>(s[e]))) {
                ++e;
            }
            std::size_t next = SkipSpace(s, e);
            if (e - pos == 3 && s.compare(pos, 3, "new") == 0 && next > e) {
                pos = e = next;
                continue;
            }
            if (next < s.size() && s[next] == '(') {
                const std::size_t close = SkipSpace(s, next + 1);
                if (close < s.size() && s[close] == ')') {
                    next = SkipSpace(s, close + 1);  // an empty call: getDecoder()
                }
            }
            if (next >= s.size() || s[next] != '.') {
                break;
            }
            const std::size_t after = SkipSpace(s, next + 1);
            if (after >= s.size() || !IsIdentChar(static_cast<unsigned char>(s[after]))) {
                break;
            }
            pos = e = after;
        }
        return e;
    }

    // Applies steps[from..0] (innermost first) to `value`; false when the
    // first of them fails. `applied` counts the steps that worked.
    bool ApplySteps(const Steps& steps, std::string& value, std::size_t& applied)
    {
        applied = 0;
        for (std::size_t i = steps.size(); i-- > 0;) {
            std::string out;
            if (Expired() || !ApplyStep(steps[i], value, out)) {
                return applied > 0;
            }
            value = std::move(out);
            ++applied;
        }
        return true;
    }

    void ApplyExplicit(const CallSite& site, Chain& chain, int depth, Inline& inlined)
    {
        std::string value = chain.literal;
        std::size_t applied = 0;
        if (!ApplySteps(chain.steps, value, applied) || value == chain.literal) {
            return;  // nothing decoded, or nothing changed (urldecode of plain text)
        }
        const bool text = LooksLikeText(value);
        if (applied < chain.steps.size() && !text) {
            return;  // a later step failed on noise
        }
        if (applied == chain.steps.size() && text && value.size() < kInlineLimit) {
            inlined.bytes += value.size();
            inlined.steps = std::max(inlined.steps, static_cast<int>(applied));
            inlined.pieces.push_back(Inline::Piece{site.nameBegin, chain.end, std::move(value)});
            return;
        }
        const Step last = chain.steps[chain.steps.size() - applied].step;
        Emit(depth + static_cast<int>(applied), std::move(value), StepName(last));
    }

    static bool LooksBase64(std::string_view v)
    {
        std::size_t alphabet = 0;
        std::size_t other = 0;
        for (const char ch : v) {
            const unsigned char c = static_cast<unsigned char>(ch);
            if (IsLetter(c) || IsDigit(c) || c == '+' || c == '/' || c == '=' || c == '-' || c == '_') {
                ++alphabet;
            } else if (!IsSpace(c)) {
                ++other;
            }
        }
        return alphabet >= kMinSpeculativeLiteral && other * 50 <= alphabet;
    }
    static bool LooksHex(std::string_view v)
    {
        std::size_t digits = 0;
        for (const char ch : v) {
            if (HexValue(static_cast<unsigned char>(ch)) >= 0) {
                ++digits;
            } else if (!IsSpace(static_cast<unsigned char>(ch))) {
                return false;
            }
        }
        return digits >= kMinSpeculativeLiteral && digits % 2 == 0;
    }

    // Long literals of a text that names a decoder but calls it on a
    // variable: decoded through the calls seen, or as base64 (then inflated
    // when that gives binary).
    void Speculate(std::string_view s, int depth, const std::vector<Steps>& holeChains,
                   const std::vector<std::pair<std::size_t, std::size_t>>& consumed)
    {
        StringReader reader(s, m_dialect);
        std::size_t tried = 0;
        std::size_t range = 0;
        std::size_t i = 0;
        while (i < s.size() && tried < kMaxSpeculativeLiterals && !m_done) {
            if (!reader.IsQuote(s[i])) {
                ++i;
                continue;
            }
            while (range < consumed.size() && consumed[range].second <= i) {
                ++range;
            }
            if (range < consumed.size() && consumed[range].first <= i) {
                i = consumed[range].second;  // already decoded through its call
                continue;
            }
            StringReader::Expr expr;
            if (!reader.ReadExpr(i, expr)) {
                ++i;
                continue;
            }
            i = expr.end;
            if (expr.value.size() < kMinSpeculativeLiteral) {
                continue;
            }
            const bool base64 = LooksBase64(expr.value);
            const bool hex = LooksHex(expr.value);
            bool any = false;
            for (const Steps& steps : holeChains) {
                // Only chains that turn an encoding into text: str_replace or
                // urldecode on a variable would rewrite every literal.
                const Step inner = steps.back().step;
                const bool fits = inner == Step::Base64 ? base64 : inner == Step::Hex ? hex : IsInflate(inner);
                if (fits) {
                    any = true;
                    TrySpeculative(steps, expr.value, depth);
                }
            }
            if (!any && (base64 || hex)) {
                any = true;
                TrySpeculative(Steps{StepCall{hex ? Step::Hex : Step::Base64, "", ""}}, expr.value, depth);
            }
            tried += any ? 1 : 0;
        }
    }

    static bool IsInflate(Step step)
    {
        return step == Step::InflateRaw || step == Step::InflateZlib || step == Step::InflateGzip ||
               step == Step::InflateAny;
    }

    void TrySpeculative(const Steps& steps, const std::string& literal, int depth)
    {
        std::string value = literal;
        std::size_t applied = 0;
        if (!ApplySteps(steps, value, applied) || applied < steps.size()) {
            return;
        }
        int stepsTaken = static_cast<int>(steps.size());
        const char* how = StepName(steps.front().step);
        if (!LooksLikeText(value) && !IsClassFile(value)) {
            // Base64 of compressed code, with the inflating call out of sight.
            std::string inflated;
            if (!ApplyStep(StepCall{Step::InflateAny, "", ""}, value, inflated) || !LooksLikeText(inflated)) {
                return;
            }
            value = std::move(inflated);
            ++stepsTaken;
            how = StepName(Step::InflateAny);
        }
        Emit(depth + stepsTaken, std::move(value), how);
    }

    bool ApplyStep(const StepCall& call, std::string_view in, std::string& out)
    {
        const Step step = call.step;
        switch (step) {
        case Step::Base64: return Take(in.size() / 4 * 3 + 3) && Base64(in, out);
        case Step::Hex: return Take(in.size() / 2 + 1) && Hex(in, out);
        case Step::Rot13:
            if (!Take(in.size())) {
                return false;
            }
            out.assign(in);
            for (char& c : out) {
                const unsigned char u = static_cast<unsigned char>(c);
                if (IsLetter(u)) {
                    const char base = (u | 0x20) == u ? 'a' : 'A';
                    c = static_cast<char>(base + (u - base + 13) % 26);
                }
            }
            return !out.empty();
        case Step::Reverse:
            if (!Take(in.size())) {
                return false;
            }
            out.assign(in.rbegin(), in.rend());
            return !out.empty();
        case Step::UrlRaw:
        case Step::Url: return Take(in.size()) && UrlDecode(in, step == Step::Url, out);
        case Step::InflateRaw: return Inflate(in, -15, out);
        case Step::InflateZlib: return Inflate(in, 15, out);
        case Step::InflateGzip: return Inflate(in, 31, out);
        case Step::InflateAny: return Inflate(in, 47, out) || Inflate(in, -15, out);
        case Step::Replace: return Replace(in, call.search, call.replace, out);
        }
        return false;
    }

    bool Replace(std::string_view in, const std::string& search, const std::string& replace, std::string& out)
    {
        std::size_t count = 0;
        for (std::size_t at = Find(in, search); at != std::string_view::npos; at = Find(in, search, at + search.size())) {
            ++count;
        }
        const std::size_t size = in.size() - count * search.size() + count * replace.size();
        if (!Take(size)) {
            return false;
        }
        out.clear();
        out.reserve(size);
        std::size_t pos = 0;
        for (std::size_t at = Find(in, search); at != std::string_view::npos; at = Find(in, search, pos)) {
            out.append(in.substr(pos, at - pos));
            out += replace;
            pos = at + search.size();
        }
        out.append(in.substr(pos));
        return !out.empty();
    }

    // PHP's lenient decoding: characters outside the alphabet are skipped;
    // the URL-safe alphabet is accepted too.
    static bool Base64(std::string_view in, std::string& out)
    {
        // Value of each byte in the standard and URL-safe alphabets, -1
        // for the rest.
        static const auto table = [] {
            std::array<int8_t, 256> t{};
            t.fill(-1);
            for (int i = 0; i < 26; ++i) {
                t['A' + i] = static_cast<int8_t>(i);
                t['a' + i] = static_cast<int8_t>(26 + i);
            }
            for (int i = 0; i < 10; ++i) {
                t['0' + i] = static_cast<int8_t>(52 + i);
            }
            t['+'] = t['-'] = 62;
            t['/'] = t['_'] = 63;
            return t;
        }();
        out.resize(in.size() / 4 * 3 + 3);
        char* dst = &out[0];
        uint32_t bits = 0;
        int count = 0;
        for (const char ch : in) {
            const int v = table[static_cast<unsigned char>(ch)];
            if (v < 0) {
                continue;
            }
            bits = (bits << 6) | static_cast<uint32_t>(v);
            if (++count == 4) {
                *dst++ = static_cast<char>((bits >> 16) & 0xFF);
                *dst++ = static_cast<char>((bits >> 8) & 0xFF);
                *dst++ = static_cast<char>(bits & 0xFF);
                bits = 0;
                count = 0;
            }
        }
        if (count == 3) {
            *dst++ = static_cast<char>((bits >> 10) & 0xFF);
            *dst++ = static_cast<char>((bits >> 2) & 0xFF);
        } else if (count == 2) {
            *dst++ = static_cast<char>((bits >> 4) & 0xFF);
        }
        out.resize(static_cast<std::size_t>(dst - out.data()));
        return !out.empty();
    }

    static bool Hex(std::string_view in, std::string& out)
    {
        out.clear();
        int high = -1;
        for (const char ch : in) {
            const int v = HexValue(static_cast<unsigned char>(ch));
            if (v < 0) {
                if (IsSpace(static_cast<unsigned char>(ch))) {
                    continue;
                }
                break;
            }
            if (high < 0) {
                high = v;
            } else {
                out += static_cast<char>(high * 16 + v);
                high = -1;
            }
        }
        return !out.empty();
    }

    static bool UrlDecode(std::string_view in, bool plusIsSpace, std::string& out)
    {
        out.clear();
        out.reserve(in.size());
        for (std::size_t i = 0; i < in.size(); ++i) {
            const char c = in[i];
            if (c == '%' && i + 2 < in.size() && HexValue(static_cast<unsigned char>(in[i + 1])) >= 0 && HexValue(static_cast<unsigned char>(in[i + 2])) >= 0) {
                out += static_cast<char>(HexValue(static_cast<unsigned char>(in[i + 1])) * 16 +
                                         HexValue(static_cast<unsigned char>(in[i + 2])));
                i += 2;
            } else {
                out += plusIsSpace && c == '+' ? ' ' : c;
            }
        }
        return !out.empty();
    }

    // Inflates into at most what is left of the byte budget: a bomb stops
    // there instead of growing.
    bool Inflate(std::string_view in, int windowBits, std::string& out)
    {
        out.clear();
        if (m_bytesLeft == 0) {
            Note(DecodeEnd::ByteLimit);
            return false;
        }
        z_stream zs;
        memset(&zs, 0, sizeof(zs));
        if (inflateInit2(&zs, windowBits) != Z_OK) {
            return false;
        }
        zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in.data()));
        zs.avail_in = static_cast<uInt>(std::min<std::size_t>(in.size(), UINT32_MAX));
        unsigned char buffer[16384];
        const std::size_t cap = m_bytesLeft;
        for (;;) {
            if (Expired()) {
                break;
            }
            zs.next_out = buffer;
            zs.avail_out = sizeof(buffer);
            const int result = inflate(&zs, Z_NO_FLUSH);
            std::size_t got = sizeof(buffer) - zs.avail_out;
            if (got > cap - out.size()) {
                got = cap - out.size();
                out.append(reinterpret_cast<const char*>(buffer), got);
                Note(DecodeEnd::ByteLimit);
                break;
            }
            out.append(reinterpret_cast<const char*>(buffer), got);
            // Z_BUF_ERROR: the input ended early; errors keep what came out.
            if (result != Z_OK) {
                break;
            }
        }
        inflateEnd(&zs);
        m_bytesLeft -= out.size();
        bytes += out.size();
        return !out.empty();
    }

    const DecodeLimits& m_limits;
    ScriptDialect m_dialect;
    const LayerDecoder::Sink& m_sink;
    Clock::time_point m_deadline;
    std::size_t m_bytesLeft;
    std::unordered_set<std::size_t> m_seen;
    std::deque<Pending> m_queue;
    DecodeEnd m_end = DecodeEnd::Complete;
    bool m_done = false;
};

}  // namespace

const char* DecodeEndText(DecodeEnd end)
{
    switch (end) {
    case DecodeEnd::Complete: return "complete";
    case DecodeEnd::Stopped: return "stopped";
    case DecodeEnd::DepthLimit: return "depth limit";
    case DecodeEnd::ByteLimit: return "decoded size limit";
    case DecodeEnd::LayerLimit: return "layer count limit";
    case DecodeEnd::TimeLimit: return "time limit";
    }
    return "?";
}

LayerDecoder::LayerDecoder(const DecodeLimits& limits) : m_limits(limits) {}

bool LayerDecoder::HasTrigger(std::string_view text)
{
    bool call = false;
    ForEachCall(text, [&call](const CallSite&) {
        call = true;
        return false;
    });
    return call || Find(text, "#@~^") != std::string_view::npos ||
           CountNumericEscapes(text, kEscapeTrigger) >= kEscapeTrigger || MentionsDecoder(text) ||
           EvalsJoinedLiterals(text);
}

DecodeEnd LayerDecoder::Decode(std::string_view file, ScriptDialect dialect, const Sink& sink)
{
    m_layers = 0;
    m_bytes = 0;
    if (!HasTrigger(file)) {
        return DecodeEnd::Complete;
    }
    Session session(m_limits, dialect, sink);
    const DecodeEnd end = session.Run(file);
    m_layers = session.layers;
    m_bytes = session.bytes;
    return end;
}

}  // namespace Engine
