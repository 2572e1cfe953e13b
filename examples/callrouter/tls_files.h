// Certificate, key and CA files: checked before anything relies on them.
#ifndef CALLROUTER_TLS_FILES_H
#define CALLROUTER_TLS_FILES_H

#include <string>

namespace callrouter {

/// Checks a certificate chain and its private key, both PEM, as a session will load them. The texts begin with the
/// option that names the file: "--cert FILE: ...".
///   returns   a remark for the user about the certificate's dates, empty when there is none
///   throws    UsageError when one cannot be read or used, or they do not belong together
std::string check_certificate(const std::string& cert, const std::string& key);

/// Checks a file of CA certificates, PEM.
///   throws    UsageError when it cannot be read or holds none
void check_ca(const std::string& ca);

}  // namespace callrouter

#endif
