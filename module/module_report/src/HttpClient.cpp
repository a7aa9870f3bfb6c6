#include "HttpClient.h"

#include <mutex>

#include <Poco/Net/RejectCertificateHandler.h>
#include <Poco/Net/SSLManager.h>

namespace Report {

Poco::Net::Context::Ptr ClientContext(const std::string& caFile, bool verify)
{
    static std::once_flag once;
    static Poco::Net::Context::Ptr standard;
    // The certificate handler is process-wide: a failed verification is
    // refused, never turned into a prompt on the terminal.
    std::call_once(once, [] {
        Poco::Net::initializeSSL();
        Poco::Net::Context::Params params;
        params.verificationMode = Poco::Net::Context::VERIFY_RELAXED;
        params.loadDefaultCAs = true;
        standard = new Poco::Net::Context(Poco::Net::Context::TLS_CLIENT_USE, params);
        Poco::Net::SSLManager::instance().initializeClient(
            Poco::Net::SSLManager::PrivateKeyPassphraseHandlerPtr(),
            Poco::Net::SSLManager::InvalidCertificateHandlerPtr(
                new Poco::Net::RejectCertificateHandler(false)),
            standard);
    });
    if (caFile.empty() && verify) {
        return standard;
    }
    Poco::Net::Context::Params params;
    params.verificationMode =
        verify ? Poco::Net::Context::VERIFY_RELAXED : Poco::Net::Context::VERIFY_NONE;
    params.loadDefaultCAs = caFile.empty();
    params.caLocation = caFile;
    return new Poco::Net::Context(Poco::Net::Context::TLS_CLIENT_USE, params);
}

}  // namespace Report
