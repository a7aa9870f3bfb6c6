#include "sdk/JsonUtils.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>

namespace SDK {

namespace {

constexpr int kMaxDepth = 1000;

// Length of the well-formed UTF-8 sequence at s[i] (RFC 3629: no overlong
// forms, no surrogates, nothing above U+10FFFF), or 0 when the byte there
// does not start one.
size_t Utf8SequenceLength(const std::string& s, size_t i)
{
    const auto byte = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
    const unsigned char c = byte(i);
    const size_t left = s.size() - i;
    if (c < 0x80) {
        return 1;
    }
    const auto cont = [&](size_t k) { return (byte(k) & 0xC0) == 0x80; };
    if (c >= 0xC2 && c <= 0xDF) {
        return (left >= 2 && cont(i + 1)) ? 2 : 0;
    }
    if (c >= 0xE0 && c <= 0xEF) {
        if (left < 3 || !cont(i + 1) || !cont(i + 2)) {
            return 0;
        }
        const unsigned char c1 = byte(i + 1);
        if ((c == 0xE0 && c1 < 0xA0) || (c == 0xED && c1 > 0x9F)) {
            return 0;  // overlong, or a UTF-16 surrogate
        }
        return 3;
    }
    if (c >= 0xF0 && c <= 0xF4) {
        if (left < 4 || !cont(i + 1) || !cont(i + 2) || !cont(i + 3)) {
            return 0;
        }
        const unsigned char c1 = byte(i + 1);
        if ((c == 0xF0 && c1 < 0x90) || (c == 0xF4 && c1 > 0x8F)) {
            return 0;  // overlong, or above U+10FFFF
        }
        return 4;
    }
    return 0;
}

bool IsValidUtf8(const std::string& s)
{
    for (size_t i = 0; i < s.size();) {
        const size_t n = Utf8SequenceLength(s, i);
        if (n == 0) {
            return false;
        }
        i += n;
    }
    return true;
}

// A byte that is not part of well-formed UTF-8 becomes the character with
// the same number (U+0080..U+00FF, i.e. read as Latin-1): the byte value
// stays visible in the event text and a legacy Latin-1 file name reads right.
std::string ToUtf8(const std::string& s)
{
    std::string out;
    out.reserve(s.size() + 8);
    for (size_t i = 0; i < s.size();) {
        const size_t n = Utf8SequenceLength(s, i);
        if (n > 0) {
            out.append(s, i, n);
            i += n;
            continue;
        }
        const unsigned char c = static_cast<unsigned char>(s[i]);
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
        ++i;
    }
    return out;
}

bool StringOf(const Json::Value& v, std::string& s)
{
    const char* begin = nullptr;
    const char* end = nullptr;
    if (!v.getString(&begin, &end) || begin == nullptr) {
        s.clear();
        return v.isString();
    }
    s.assign(begin, end);
    return true;
}

bool NeedsRepair(const Json::Value& v)
{
    switch (v.type()) {
    case Json::stringValue: {
        std::string s;
        StringOf(v, s);
        return !IsValidUtf8(s);
    }
    case Json::arrayValue:
        for (Json::ArrayIndex i = 0; i < v.size(); ++i) {
            if (NeedsRepair(v[i])) {
                return true;
            }
        }
        return false;
    case Json::objectValue:
        for (auto it = v.begin(); it != v.end(); ++it) {
            if (!IsValidUtf8(it.name()) || NeedsRepair(*it)) {
                return true;
            }
        }
        return false;
    default:
        return false;
    }
}

Json::Value Repaired(const Json::Value& v)
{
    switch (v.type()) {
    case Json::stringValue: {
        std::string s;
        StringOf(v, s);
        return Json::Value(ToUtf8(s));
    }
    case Json::arrayValue: {
        Json::Value out(Json::arrayValue);
        for (Json::ArrayIndex i = 0; i < v.size(); ++i) {
            out.append(Repaired(v[i]));
        }
        return out;
    }
    case Json::objectValue: {
        Json::Value out(Json::objectValue);
        for (auto it = v.begin(); it != v.end(); ++it) {
            out[ToUtf8(it.name())] = Repaired(*it);
        }
        return out;
    }
    default:
        return v;
    }
}

// The shortest decimal text that reads back as the same double.
std::string RealText(double d)
{
    if (!std::isfinite(d)) {
        return Json::Value(d).asString();
    }
    char buf[40];
    for (int precision = 15; precision <= 17; ++precision) {
        std::snprintf(buf, sizeof(buf), "%.*g", precision, d);
        if (std::strtod(buf, nullptr) == d) {
            break;
        }
    }
    return buf;
}

const Json::Value* Member(const Json::Value& value, const std::string& key)
{
    if (!value.isObject()) {
        return nullptr;
    }
    return value.find(key.data(), key.data() + key.size());
}

}  // namespace

int JsonUtils::ParseJsonStr(const char* text, std::size_t length, Json::Value& out)
{
    if (text == nullptr) {
        return -1;
    }
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    builder["allowComments"] = false;
    builder["allowSingleQuotes"] = false;
    builder["allowSpecialFloats"] = false;
    builder["failIfExtra"] = true;
    builder["stackLimit"] = kMaxDepth;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value parsed;
    std::string errors;
    try {
        if (!reader->parse(text, text + length, &parsed, &errors)) {
            return -1;
        }
    } catch (const std::exception&) {
        // JsonCpp throws when the nesting limit is exceeded.
        return -1;
    }
    out.swap(parsed);
    return 0;
}

int JsonUtils::ParseJsonStr(const std::string& text, Json::Value& out)
{
    return ParseJsonStr(text.data(), text.size(), out);
}

std::string JsonUtils::GetStringValue(const Json::Value& value, const std::string& key,
                                      const std::string& def)
{
    const Json::Value* v = key.empty() ? &value : Member(value, key);
    if (v == nullptr) {
        return def;
    }
    switch (v->type()) {
    case Json::stringValue: {
        std::string s;
        StringOf(*v, s);
        return s;
    }
    case Json::intValue:
        return Json::valueToString(v->asLargestInt());
    case Json::uintValue:
        return Json::valueToString(v->asLargestUInt());
    case Json::realValue:
        return RealText(v->asDouble());
    case Json::booleanValue:
        return v->asBool() ? "true" : "false";
    default:
        return def;
    }
}

bool JsonUtils::GetBoolValue(const Json::Value& value, const std::string& key, bool def)
{
    const Json::Value* v = Member(value, key);
    return (v != nullptr && v->isBool()) ? v->asBool() : def;
}

int JsonUtils::GetIntValue(const Json::Value& value, const std::string& key, int def)
{
    const Json::Value* v = Member(value, key);
    // isInt: an int, or an unsigned or a real with an integral value, within 32 bits.
    return (v != nullptr && v->isInt()) ? v->asInt() : def;
}

bool JsonUtils::GetSubobjectValue(const Json::Value& value, const std::string& key,
                                  Json::Value& out)
{
    const Json::Value* v = Member(value, key);
    if (v == nullptr || !v->isObject()) {
        return false;
    }
    out = *v;
    return true;
}

bool JsonUtils::GetArrayValue(const Json::Value& value, const std::string& key,
                              Json::Value& out)
{
    const Json::Value* v = Member(value, key);
    if (v == nullptr || !v->isArray()) {
        return false;
    }
    out = *v;
    return true;
}

std::string JsonUtils::EscapeNonUtf8(const std::string& text, bool& escaped)
{
    escaped = !IsValidUtf8(text);
    if (!escaped) {
        return text;
    }
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < text.size();) {
        const size_t n = Utf8SequenceLength(text, i);
        if (n == 0) {
            const auto b = static_cast<unsigned char>(text[i]);
            out += "\\x";
            out += kHex[b >> 4];
            out += kHex[b & 0x0F];
            ++i;
        } else if (text[i] == '\\') {
            out += "\\\\";
            ++i;
        } else {
            out.append(text, i, n);
            i += n;
        }
    }
    return out;
}

std::string JsonUtils::JsonToString(const Json::Value& value)
{
    // JsonCpp 1.9.5 either copies bytes that are not UTF-8 into its output
    // (emitUTF8) or decodes them loosely and swallows the bytes that follow.
    // Repair the strings first, then let it write real UTF-8 unchanged.
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    try {
        if (NeedsRepair(value)) {
            return Json::writeString(builder, Repaired(value));
        }
        return Json::writeString(builder, value);
    } catch (const std::exception&) {
        return "null";
    }
}

}  // namespace SDK
