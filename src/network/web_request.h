#pragma once
// A request of the web client: a method and a path relative to the client's
// base URL, query parameters, headers and multipart form fields. The client
// fills in the absolute URL and its own headers before sending.

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "network/multipart_mime_stream_encoder.h"
#include "network/url_request.h"

namespace symlift::network {

// What a server presented during the TLS handshake, for a request's own
// decision on whether to trust it.
struct SUPServerTrust {
  std::string host;
  std::vector<Data> certificateChain;  // DER, the server's certificate first
  // The verdict of the usual checks (chain to a trusted root, host name),
  // and the reason when they failed.
  bool defaultEvaluationSucceeded = false;
  std::string defaultEvaluationError;
};

// Answers whether the presented trust is accepted. Asked during the
// handshake; refusing ends the request with "SUPWebClientErrorDomain" -2.
using SUPProtectionSpaceHandler = std::function<bool(const SUPServerTrust& trust)>;

// A form value: text goes out as a value part, bytes as a file part, and
// anything else is carried but not sent.
using SUPFormRecordValue = std::variant<std::string, Data, std::int64_t, double, SUPNull>;

struct SUPFormRecord {
  std::string field;
  SUPFormRecordValue value;
  std::optional<std::string> mimeType;  // "text/plain" for plain values
  std::optional<std::string> filename;  // files only
};

// The path rule: ASCII letters, digits and ! $ & ' ( ) * + , - . / : = @ _ ~
// stay, every other byte becomes %XX (so ";" and "?" are escaped).
std::string escapeURLPathString(const std::string& text);

// The boundary of every web-client form body.
inline constexpr const char* kSUPWebRequestFormBoundary = "AaB03x";

class SUPWebRequest {
 public:
  static std::shared_ptr<SUPWebRequest> requestWithMethod(std::string method, std::string path);

  std::string method;
  std::string path;
  std::optional<std::string> URL;  // absolute; set by the client when missing
  std::map<std::string, std::string> parameters;
  HTTPHeaders customHeaders;
  std::vector<SUPFormRecord> formFields;
  SUPProtectionSpaceHandler protectionSpaceHandler;

  void addValueForHTTPHeaderField(const std::string& value, const std::string& field);
  // Adds the entries whose names this request does not hold yet: the
  // request's own headers win.
  void addHeaders(const HTTPHeaders& headers);

  void addFormRecord(SUPFormRecord record);
  void addValueForFormField(const std::string& value, const std::string& field);
  void addDataMIMETypeFileNameForFormField(const Data& data, const std::string& mimeType, const std::string& fileName,
                                           const std::string& field);
  // Every entry becomes a value named "<prefix>[<key>]"; with the empty
  // prefix that is "[<key>]". Nested structures are not expanded.
  void addValueForFormFromDict(const std::map<std::string, SUPFormRecordValue>& values);
  void addValueForFormFromDictWithPrefix(const std::map<std::string, SUPFormRecordValue>& values,
                                         const std::string& prefix);

  // The URL's text with the parameters as an escaped query.
  std::string fullURL() const;
  // The multipart body of the form fields, or nothing without any; sets the
  // request's Content-Type to the form's.
  std::optional<Data> formData();
  // What goes on the wire: fullURL, the method, a 15-second time-out, the
  // form body and the custom headers.
  network::URLRequest URLRequest();
};

}  // namespace symlift::network
