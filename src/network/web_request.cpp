#include "network/web_request.h"

#include <fmt/format.h>

namespace symlift::network {

namespace {

bool isPathAllowed(unsigned char c) {
  if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')) return true;
  switch (c) {
    case '!': case '$': case '&': case '\'': case '(': case ')': case '*': case '+': case ',':
    case '-': case '.': case '/': case ':': case '=': case '@': case '_': case '~':
      return true;
    default:
      return false;
  }
}

// Nothing tells the platform's form-body types apart from the values of a
// dictionary, so every kind is carried; only text and bytes are sent.
struct FormValueWriter {
  SUPMultipartMimeStreamEncoder& encoder;
  const SUPFormRecord& record;
  void operator()(const std::string& text) const { encoder.addValue(SUPFormValue(text), record.field); }
  void operator()(const Data& data) const {
    encoder.addFileData(data, record.filename, record.mimeType, record.field);
  }
  void operator()(std::int64_t) const {}
  void operator()(double) const {}
  void operator()(const SUPNull&) const {}
};

}  // namespace

std::string escapeURLPathString(const std::string& text) {
  std::string escaped;
  escaped.reserve(text.size());
  for (unsigned char c : text) {
    if (isPathAllowed(c))
      escaped += static_cast<char>(c);
    else
      escaped += fmt::format("%{:02X}", c);
  }
  return escaped;
}

std::shared_ptr<SUPWebRequest> SUPWebRequest::requestWithMethod(std::string method, std::string path) {
  auto request = std::make_shared<SUPWebRequest>();
  request->method = std::move(method);
  request->path = std::move(path);
  return request;
}

void SUPWebRequest::addValueForHTTPHeaderField(const std::string& value, const std::string& field) {
  customHeaders.setValue(value, field);
}

void SUPWebRequest::addHeaders(const HTTPHeaders& headers) {
  for (const auto& [name, value] : headers.fields())
    if (!customHeaders.valueForField(name)) customHeaders.setValue(value, name);
}

void SUPWebRequest::addFormRecord(SUPFormRecord record) { formFields.push_back(std::move(record)); }

void SUPWebRequest::addValueForFormField(const std::string& value, const std::string& field) {
  addFormRecord({field, value, std::string("text/plain"), std::nullopt});
}

void SUPWebRequest::addDataMIMETypeFileNameForFormField(const Data& data, const std::string& mimeType,
                                                        const std::string& fileName, const std::string& field) {
  addFormRecord({field, data, mimeType, fileName});
}

void SUPWebRequest::addValueForFormFromDict(const std::map<std::string, SUPFormRecordValue>& values) {
  addValueForFormFromDictWithPrefix(values, "");
}

void SUPWebRequest::addValueForFormFromDictWithPrefix(const std::map<std::string, SUPFormRecordValue>& values,
                                                      const std::string& prefix) {
  for (const auto& [key, value] : values)
    addFormRecord({fmt::format("{}[{}]", prefix, key), value, std::string("text/plain"), std::nullopt});
}

std::string SUPWebRequest::fullURL() const {
  std::string text = URL.value_or("");
  if (parameters.empty()) return text;
  text += '?';
  for (const auto& [name, value] : parameters)
    text += fmt::format("{}={}&", escapeURLPathString(name), escapeURLPathString(value));
  text.pop_back();  // the last "&"
  return text;
}

std::optional<Data> SUPWebRequest::formData() {
  if (formFields.empty()) return std::nullopt;
  auto stream = std::make_shared<SUPMemoryOutputStream>();
  SUPMultipartMimeStreamEncoder encoder(stream, std::string(kSUPWebRequestFormBoundary));
  encoder.encode([&] {
    for (const auto& record : formFields) std::visit(FormValueWriter{encoder, record}, record.value);
  });
  customHeaders.setValue(SUPMultipartMimeStreamEncoder::contentTypeHTTPHeaderValueWithBoundary(kSUPWebRequestFormBoundary),
                         "Content-Type");
  return stream->bytesWritten();
}

network::URLRequest SUPWebRequest::URLRequest() {
  network::URLRequest request(fullURL());
  request.cachePolicy = URLRequestCachePolicy::ReloadIgnoringLocalCacheData;
  request.timeoutInterval = 15;
  request.HTTPMethod = method;
  if (auto body = formData()) request.HTTPBody = std::move(*body);
  request.allHTTPHeaderFields = customHeaders;
  return request;
}

}  // namespace symlift::network
