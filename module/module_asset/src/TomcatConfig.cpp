#include "asset/TomcatConfig.h"

#include <sstream>

#include <Poco/Exception.h>
#include <Poco/SAX/Attributes.h>
#include <Poco/SAX/DefaultHandler.h>
#include <Poco/SAX/InputSource.h>
#include <Poco/SAX/Locator.h>
#include <Poco/SAX/SAXException.h>
#include <Poco/SAX/SAXParser.h>
#include <Poco/SAX/XMLReader.h>

namespace Asset {

namespace {
constexpr const char* kDefaultEngine = "Catalina";
constexpr const char* kDefaultAppBase = "webapps";
constexpr size_t kMaxContextFiles = 512;
}  // namespace

// Collects Engine, Host and Context elements as the parser meets them, so
// that what came before a syntax error is still used.
class TomcatSaxHandler : public Poco::XML::DefaultHandler {
public:
    TomcatSaxHandler(TomcatConfigParser& parser, const std::string& file, bool contextFile,
                     int host)
        : m_parser(parser), m_file(file), m_contextFile(contextFile), m_fixedHost(host)
    {
    }

    void setDocumentLocator(const Poco::XML::Locator* loc) override { m_locator = loc; }

    void startElement(const Poco::XML::XMLString&, const Poco::XML::XMLString& localName,
                      const Poco::XML::XMLString& qname,
                      const Poco::XML::Attributes& attributes) override
    {
        const std::string& name = qname.empty() ? localName : qname;
        const int line = m_locator != nullptr ? m_locator->getLineNumber() : 0;
        m_stack.push_back(name);
        if (m_contextFile) {
            if (name == "Context" && m_stack.size() == 1) {
                AddContext(attributes, m_fixedHost, line);
            }
            return;
        }
        if (name == "Engine") {
            std::string engine = Attr(attributes, "name");
            m_engine = engine.empty() ? kDefaultEngine : engine;
        } else if (name == "Host") {
            TomcatConfigParser::Host host;
            host.engine = m_engine.empty() ? kDefaultEngine : m_engine;
            host.name = Attr(attributes, "name");
            std::string appBase = Attr(attributes, "appBase");
            host.appBase = SDK::HostRoot::StripTrailingSlash(
                SDK::HostRoot::Join(m_parser.m_base, appBase.empty() ? kDefaultAppBase : appBase));
            host.xmlBase = Attr(attributes, "xmlBase");
            host.file = m_file;
            host.line = line;
            m_parser.m_hosts.push_back(host);
            m_currentHost = static_cast<int>(m_parser.m_hosts.size()) - 1;
        } else if (name == "Context") {
            AddContext(attributes, m_currentHost, line);
        }
    }

    void endElement(const Poco::XML::XMLString&, const Poco::XML::XMLString&,
                    const Poco::XML::XMLString&) override
    {
        if (!m_stack.empty()) {
            if (m_stack.back() == "Host") {
                m_currentHost = -1;
            } else if (m_stack.back() == "Engine") {
                m_engine.clear();
            }
            m_stack.pop_back();
        }
    }

private:
    std::string Attr(const Poco::XML::Attributes& attributes, const std::string& name) const
    {
        for (int i = 0; i < attributes.getLength(); ++i) {
            const std::string& q = attributes.getQName(i).empty() ? attributes.getLocalName(i)
                                                                  : attributes.getQName(i);
            if (q == name) {
                return m_parser.Substitute(attributes.getValue(i));
            }
        }
        return "";
    }

    void AddContext(const Poco::XML::Attributes& attributes, int host, int line)
    {
        TomcatConfigParser::Context ctx;
        ctx.host = host;
        ctx.docBase = Attr(attributes, "docBase");
        ctx.file = m_file;
        ctx.line = line;
        if (!ctx.docBase.empty()) {
            m_parser.m_contexts.push_back(ctx);
        }
    }

    TomcatConfigParser& m_parser;
    std::string m_file;
    bool m_contextFile;
    int m_fixedHost;
    const Poco::XML::Locator* m_locator = nullptr;
    std::vector<std::string> m_stack;
    std::string m_engine;
    int m_currentHost = -1;
};

TomcatConfigParser::TomcatConfigParser(const SDK::HostRoot& fs, const std::string& catalinaBase,
                                       const std::map<std::string, std::string>& properties)
    : m_fs(fs), m_base(SDK::HostRoot::StripTrailingSlash(SDK::HostRoot::Join("/", catalinaBase))),
      m_properties(properties)
{
    m_properties.emplace("catalina.base", m_base);
    m_properties.emplace("catalina.home", m_base);
}

std::string TomcatConfigParser::Substitute(const std::string& value) const
{
    std::string out;
    size_t pos = 0;
    while (pos < value.size()) {
        size_t start = value.find("${", pos);
        size_t end = start == std::string::npos ? std::string::npos : value.find('}', start + 2);
        if (end == std::string::npos) {
            out += value.substr(pos);
            break;
        }
        out += value.substr(pos, start - pos);
        auto it = m_properties.find(value.substr(start + 2, end - start - 2));
        out += it != m_properties.end() ? it->second : value.substr(start, end - start + 1);
        pos = end + 1;
    }
    return out;
}

void TomcatConfigParser::ParseXml(std::istream& in, const std::string& file, bool contextFile,
                                  int host)
{
    m_scan.files.push_back(file);
    TomcatSaxHandler handler(*this, file, contextFile, host);
    Poco::XML::SAXParser parser;
    // Configuration files never need entities from elsewhere; reading them
    // would let a file pull in arbitrary host files.
    parser.setFeature(Poco::XML::XMLReader::FEATURE_NAMESPACES, false);
    parser.setFeature(Poco::XML::XMLReader::FEATURE_EXTERNAL_GENERAL_ENTITIES, false);
    parser.setFeature(Poco::XML::XMLReader::FEATURE_EXTERNAL_PARAMETER_ENTITIES, false);
    parser.setContentHandler(&handler);
    parser.setErrorHandler(&handler);
    Poco::XML::InputSource source(in);
    try {
        parser.parse(&source);
    } catch (const Poco::XML::SAXParseException& e) {
        m_scan.AddIssue(file, e.getLineNumber(), "XML error: " + e.message());
    } catch (const Poco::Exception& e) {
        m_scan.AddIssue(file, 0, "XML error: " + e.displayText());
    }
}

void TomcatConfigParser::Report(const std::string& path, const std::string& origin,
                                const std::string& file, int line)
{
    std::string literal = LiteralDirPart(path);
    if (literal.empty()) {
        m_scan.AddIssue(file, line, origin + " \"" + path + "\" has no literal directory; not reported");
        return;
    }
    m_scan.AddDir(WebDir{SDK::HostRoot::StripTrailingSlash(literal), origin, file, line});
}

void TomcatConfigParser::Finish()
{
    // Context files of each host, read after server.xml named the hosts.
    const size_t serverXmlHosts = m_hosts.size();
    size_t contextFiles = 0;
    for (size_t i = 0; i < serverXmlHosts; ++i) {
        const Host& host = m_hosts[i];
        if (host.name.empty()) {
            continue;
        }
        std::string dir = host.xmlBase.empty()
                              ? m_base + "/conf/" + host.engine + "/" + host.name
                              : SDK::HostRoot::Join(m_base, host.xmlBase);
        for (const auto& file : m_fs.Glob(SDK::HostRoot::StripTrailingSlash(dir) + "/*.xml")) {
            if (++contextFiles > kMaxContextFiles) {
                m_scan.AddIssue(file, 0, "too many context files; the rest are not read");
                break;
            }
            std::string text;
            std::string error;
            if (!ReadConfigFile(m_fs, file, text, error)) {
                m_scan.AddIssue(file, 0, "cannot read context file: " + error);
                continue;
            }
            std::istringstream in(text);
            ParseXml(in, file, true, static_cast<int>(i));
        }
    }
    for (const auto& host : m_hosts) {
        Report(host.appBase, "appBase", host.file, host.line);
    }
    for (const auto& ctx : m_contexts) {
        // A relative docBase is relative to its host's appBase.
        std::string appBase = ctx.host >= 0 ? m_hosts[static_cast<size_t>(ctx.host)].appBase
                                            : m_base + "/" + kDefaultAppBase;
        Report(SDK::HostRoot::StripTrailingSlash(SDK::HostRoot::Join(appBase, ctx.docBase)), "docBase",
               ctx.file, ctx.line);
    }
}

ConfigScan TomcatConfigParser::Parse()
{
    m_scan = ConfigScan();
    m_hosts.clear();
    m_contexts.clear();
    const std::string serverXml = m_base + "/conf/server.xml";
    std::string text;
    std::string error;
    if (!ReadConfigFile(m_fs, serverXml, text, error)) {
        m_scan.AddIssue(serverXml, 0, "cannot read the configuration file: " + error);
        return m_scan;
    }
    std::istringstream in(text);
    ParseXml(in, serverXml, false, -1);
    Finish();
    return m_scan;
}

ConfigScan TomcatConfigParser::ParseServerXml(std::istream& in, const std::string& name)
{
    m_scan = ConfigScan();
    m_hosts.clear();
    m_contexts.clear();
    ParseXml(in, name, false, -1);
    Finish();
    return m_scan;
}

}  // namespace Asset
