// What the file check finds beyond plain text: harmless markers hidden under
// each decoder's encoding and under several layers, hostile inputs that must
// stay bounded, and the promotion of scored rules to certain.

#include <zlib.h>

#include <chrono>
#include <random>
#include <sstream>

#include <Poco/Base64Encoder.h>
#include <gtest/gtest.h>

#include "WebshellTestUtil.h"
#include "webshell/LayerDecoder.h"
#include "webshell/ScanWebshellTask.h"

using namespace WebshellTest;

namespace {

const char* const kMarker = "ARDENT-TEST-MARKER";
const char* const kDeepMarker = "ARDENT-DEEP-MARKER";
const char* const kPlain = "ARDENT-PLAIN-SUSPICIOUS";

// The markers count only where the rules say: in a decoded layer, or at
// least three decoding steps down.
const char* const kRules = R"(
rule marker_in_layer : certain
{
    meta: description = "test marker seen in decoded text" score = 100
    strings: $m = "ARDENT-TEST-MARKER"
    condition: $m and layer_depth > 0
}
rule deep_marker : certain
{
    strings: $m = "ARDENT-DEEP-MARKER"
    condition: $m and layer_depth >= 3
}
rule plain_suspicious
{
    strings: $s = "ARDENT-PLAIN-SUSPICIOUS"
    condition: $s
}
rule scored_high { meta: score = 80 strings: $s = "ARDENT-SCORE-HIGH" condition: $s }
rule scored_low { meta: score = 40 strings: $s = "ARDENT-SCORE-LOW" condition: $s }
rule scored_extra : extra_php { meta: score = 95 strings: $s = "ARDENT-SCORE-EXTRA" condition: $s }
)";

std::string Base64(const std::string& s)
{
    std::ostringstream out;
    Poco::Base64Encoder encoder(out);
    encoder.rdbuf()->setLineLength(0);
    encoder << s;
    encoder.close();
    return out.str();
}

// windowBits: -15 raw deflate (gzinflate), 15 zlib (gzuncompress), 31 gzip.
// `zeros` more zero bytes follow `s` without being held in memory.
std::string Deflate(const std::string& s, int windowBits, size_t zeros = 0)
{
    z_stream zs{};
    EXPECT_EQ(deflateInit2(&zs, 9, Z_DEFLATED, windowBits, 8, Z_DEFAULT_STRATEGY), Z_OK);
    std::string out;
    const std::string chunk(1 << 20, '\0');
    auto feed = [&](const std::string& in, int flush) {
        zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in.data()));
        zs.avail_in = static_cast<uInt>(in.size());
        do {
            char buf[65536];
            zs.next_out = reinterpret_cast<Bytef*>(buf);
            zs.avail_out = sizeof(buf);
            deflate(&zs, flush);
            out.append(buf, sizeof(buf) - zs.avail_out);
        } while (zs.avail_out == 0);
    };
    feed(s, Z_NO_FLUSH);
    for (; zeros >= chunk.size(); zeros -= chunk.size()) {
        feed(chunk, Z_NO_FLUSH);
    }
    feed(std::string(zeros, '\0'), Z_FINISH);
    deflateEnd(&zs);
    return out;
}

std::string Rot13(std::string s)
{
    for (char& c : s) {
        if (isalpha(static_cast<unsigned char>(c))) {
            const char base = islower(static_cast<unsigned char>(c)) ? 'a' : 'A';
            c = static_cast<char>(base + (c - base + 13) % 26);
        }
    }
    return s;
}

// Each byte of `s` through `format` ("%02x", "\\x%02x", "chr(%d)", ...),
// joined by `join`.
std::string EachByte(const std::string& s, const char* format, const std::string& join = "")
{
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        char buf[32];
        snprintf(buf, sizeof(buf), format, static_cast<unsigned char>(s[i]));
        out += (i > 0 ? join : "") + buf;
    }
    return out;
}

std::string Xor(const std::string& a, const std::string& b)
{
    std::string out(a);
    for (size_t i = 0; i < out.size(); ++i) {
        out[i] = static_cast<char>(out[i] ^ b[i]);
    }
    return out;
}

class DetectTest : public TaskFixture<Engine::OnceScanWebshellTask> {
protected:
    void SetUp() override
    {
        doc.defaultPaths = {web.Path()};
        doc.fileType = "";
        doc.libHash = env.InstallRules(kRules);
    }
    void Scanning()
    {
        Apply();
        ASSERT_TRUE(task->ParsePolicyContent());
    }
    // Keyword of each event, by path.
    std::map<std::string, std::string> Events()
    {
        std::map<std::string, std::string> out;
        for (auto& e : env.Events()) {
            out[e["file_info"][0]["file_path"].asString()] = e["file_info"][0]["file_key_word"].asString();
        }
        return out;
    }
};

struct Hidden {
    const char* name;  // file name: its extension picks the language
    std::string content;
    const char* keyword;
};

}  // namespace

TEST_F(DetectTest, MarkerHiddenUnderEachEncodingIsReportedWithItsKeywordAndScoresCanMakeCertain)
{
    const std::string payload = std::string("echo \"") + kMarker + "\";";
    const std::string marker = kMarker;
    const std::string key = "0123456789abcdefgh";
    const std::string deep = std::string("echo \"") + kDeepMarker + "\";";
    const std::string level2 = "eval(str_rot13('" + Rot13(deep) + "'));";
    const std::string level1 = "eval(hex2bin('" + EachByte(level2, "%02x") + "'));";
    const std::string b64 = Base64(payload);

    const std::vector<Hidden> cases = {
        {"base64.php", "<?php eval(base64_decode('" + b64 + "'));", kMarker},
        {"gzinflate.php", "<?php eval(gzinflate(base64_decode(\"" + Base64(Deflate(payload, -15)) + "\")));", kMarker},
        {"gzuncompress.php", "<?php eval(gzuncompress(base64_decode('" + Base64(Deflate(payload, 15)) + "')));", kMarker},
        {"gzdecode.php", "<?php eval(GzDecode(Base64_Decode('" + Base64(Deflate(payload, 31)) + "')));", kMarker},
        {"rot13.php", "<?php eval(str_rot13('" + Rot13(payload) + "'));", kMarker},
        {"strrev.php", "<?php eval(strrev('" + std::string(payload.rbegin(), payload.rend()) + "'));", kMarker},
        {"hex2bin.php", "<?php eval(hex2bin('" + EachByte(payload, "%02x") + "'));", kMarker},
        {"pack.php", "<?php eval(pack(\"H*\", '" + EachByte(payload, "%02X") + "'));", kMarker},
        {"hex-escapes.php", "<?php $f = \"" + EachByte(marker, "\\x%02x") + "\";", kMarker},
        {"octal-escapes.php", "<?php $f = \"" + EachByte(marker, "\\%03o") + "\";", kMarker},
        {"chr.php", "<?php $f = " + EachByte(marker, "chr(%d)", " . ") + ";", kMarker},
        {"xor.php", "<?php $f = '" + key + "' ^ \"" + EachByte(Xor(marker, key), "\\x%02x") + "\";", kMarker},
        {"rawurldecode.php", "<?php eval(rawurldecode('" + EachByte(payload, "%%%02X") + "'));", kMarker},
        {"urldecode.php", "<?php eval(urldecode('echo+%22" + EachByte(marker, "%%%02x") + "%22%3B'));", kMarker},
        {"variable.php", "<?php $p = '" + Base64(Deflate(payload, -15)) + "';\n$c = gzinflate(base64_decode($p)); eval($c);",
         kMarker},
        // The decoder's own names spelled in pieces inside eval's string.
        {"joined.php", "<?php eval(\"\\$x=gzin\".\"flate(base\".\"64_de\".\"code(\\\"" + Base64(Deflate(payload, -15)) +
                           "\\\"));\");",
         kMarker},
        {"chr.asp", "<% Execute(" + EachByte(marker, "Chr(%d)", " & ") + ") %>", kMarker},
        {"chrw.asp", "<% x = " + EachByte(marker.substr(0, 6), "ChrW(&H%X)", " & ") + " & \"" + marker.substr(6) +
                         "\" ' it's a comment\n%>",
         kMarker},
        {"encoded.asp",
         "<%@ LANGUAGE = VBScript.Encode %><%#@~^IwAAAA==]\x7f/2Kxk+RqDbO+,J)IG2HP K2UPOtbIn3]JAAAAAA==^#~@%>", kMarker},
        {"frombase64.aspx", "<%@ Page Language=\"C#\" %><% var b = System.Convert.FromBase64String(\"" + b64 + "\"); %>",
         kMarker},
        {"getdecoder.jsp", "<% byte[] b = java.util.Base64.getDecoder().decode(\"" + b64.substr(0, 12) + "\" +\n  \"" +
                               b64.substr(12) + "\"); %>",
         kMarker},
        {"decodebuffer.jsp", "<% byte[] b = new sun.misc.BASE64Decoder().decodeBuffer(\"" + b64 + "\"); %>", kMarker},
        {"datatype.jsp", "<% byte[] b = javax.xml.bind.DatatypeConverter.parseBase64Binary(\"" + b64 + "\"); %>",
         kMarker},
        {"unicode.jsp", "<% String s = \"" + EachByte(marker, "\\u%04x") + "\"; %>", kMarker},
        {"b64decode.py", "import base64, zlib\nexec(zlib.decompress(base64.b64decode('" + Base64(Deflate(payload, 15)) +
                             "')))\n",
         kMarker},
        // Four steps down: base64, inflate, hex, rot13.
        {"nested.php", "<?php eval(gzinflate(base64_decode('" + Base64(Deflate(level1, -15)) + "')));", kDeepMarker},
    };

    Scanning();
    std::map<std::string, std::string> expected;
    for (const Hidden& c : cases) {
        ASSERT_EQ(c.content.find(c.keyword), std::string::npos) << c.name << " shows its marker";
        const std::string path = web.Write(c.name, c.content);
        task->ScanFromFile(path, Engine::ContainerCacheInfo());
        expected[path] = c.keyword;
    }
    EXPECT_EQ(Events(), expected) << log.Dump();
    EXPECT_TRUE(env.UploadPaths().empty());

    // An untagged rule with a score at the setting becomes certain.
    // Uploaded files are not uploaded again: each round has its own.
    auto scanRound = [&](const std::string& dir) {
        std::map<std::string, std::string> paths;
        for (const char* text : {"ARDENT-SCORE-HIGH", "ARDENT-SCORE-LOW", "ARDENT-SCORE-EXTRA",
                                 "ARDENT-SCORE-LOW ARDENT-SCORE-HIGH"}) {
            const std::string path = web.Write(dir + "/" + std::to_string(paths.size()) + ".php", text);
            task->ScanFromFile(path, Engine::ContainerCacheInfo());
            paths[text] = path;
        }
        return paths;
    };

    // Off unless set: every scored match is an upload.
    env.ClearCaptures();
    scanRound("off");
    EXPECT_TRUE(Events().empty());
    EXPECT_EQ(env.UploadPaths().size(), 4u);

    // At 80: the rule scored 80 is certain, also behind an earlier
    // suspicious match; a deciding tag keeps its meaning whatever the score.
    env.ClearCaptures();
    doc.certainMinScore = 80;
    Scanning();
    std::map<std::string, std::string> on = scanRound("on");
    EXPECT_EQ(Events(), (std::map<std::string, std::string>{{on["ARDENT-SCORE-HIGH"], "ARDENT-SCORE-HIGH"},
                                                           {on["ARDENT-SCORE-LOW ARDENT-SCORE-HIGH"], "ARDENT-SCORE-HIGH"}}));
    EXPECT_EQ(env.UploadPaths(), (std::set<std::string>{on["ARDENT-SCORE-LOW"], on["ARDENT-SCORE-EXTRA"]}));
}

TEST_F(DetectTest, HostileInputIsBoundedAndTheFileIsStillScannedAsItIs)
{
    std::mt19937 random(7);
    std::string binary(1 << 20, '\0');
    for (char& c : binary) {
        c = static_cast<char>(random());
    }
    const std::string payload = "echo 'decoded twice';";
    struct Row {
        const char* name;
        std::string content;
        Engine::DecodeEnd end;
        size_t layers;
    };
    const std::vector<Row> rows = {
        // 100 MB of zeros behind gzinflate: inflation stops at the byte budget.
        {"bomb.php", "<?php eval(gzinflate(base64_decode('" + Base64(Deflate("", -15, 100u << 20)) + "')));",
         Engine::DecodeEnd::ByteLimit, 1},
        {"nest.php", "<?php eval(" + [] {
             std::string s;
             for (int i = 0; i < 1000; ++i) {
                 s += "str_rot13(";
             }
             return s + "'riny($_CBFG[1]);'" + std::string(1000, ')');
         }() + ");",
         Engine::DecodeEnd::DepthLimit, 0},
        // The same layer reached twice, and through two rot13 steps the
        // literal it came from: each text is scanned once.
        {"loop.php", "<?php eval(base64_decode('" + Base64(payload) + "')); eval(base64_decode('" + Base64(payload) +
                         "')); eval(str_rot13(str_rot13('" + payload + "')));",
         Engine::DecodeEnd::Complete, 1},
        // Broken base64 and compressed data; a cut gzip stream keeps what it
        // gave before the cut (one inline layer).
        {"malformed.php", "<?php eval(gzinflate(base64_decode('@@@%%%'))); eval(gzuncompress(base64_decode('QUJDRA=='))); "
                          "eval(gzdecode(base64_decode('" + Base64(Deflate(payload, 31).substr(0, 12)) + "'))); "
                          "eval(base64_decode('unclosed",
         Engine::DecodeEnd::Complete, 1},
        {"binary.php", binary, Engine::DecodeEnd::Complete, 0},
    };

    Scanning();
    std::set<std::string> uploads;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        // The byte and depth bounds are under test, not the time budget: a
        // loaded or sanitized build must not end these rows by the clock.
        Engine::DecodeLimits limits;
        limits.budget = std::chrono::minutes(5);
        Engine::LayerDecoder decoder(limits);
        size_t seen = 0;
        const Engine::DecodeEnd end = decoder.Decode(row.content, Engine::ScriptDialect::CLike,
                                                     [&seen](const Engine::DecodedLayer& layer) {
                                                         EXPECT_LE(layer.depth, Engine::DecodeLimits().maxDepth);
                                                         ++seen;
                                                         return true;
                                                     });
        if (row.name != std::string("binary.php")) {
            EXPECT_EQ(end, row.end) << Engine::DecodeEndText(end);
            EXPECT_EQ(decoder.LayerCount(), row.layers);
        }
        EXPECT_EQ(seen, decoder.LayerCount());
        EXPECT_LE(decoder.DecodedBytes(), Engine::DecodeLimits().maxBytes);

        // Through the task: the plain text is still seen, as a suspicious file.
        const std::string path = web.Write(row.name, row.content + kPlain);
        task->ScanFromFile(path, Engine::ContainerCacheInfo());
        uploads.insert(path);
    }
    EXPECT_TRUE(Events().empty());
    EXPECT_EQ(env.UploadPaths(), uploads);
}
