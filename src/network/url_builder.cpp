#include "network/url_builder.h"

#include <curl/curl.h>
#include <fmt/format.h>

#include <memory>
#include <string_view>

#include "console/console_log.h"

namespace symlift::network {

namespace {
bool isQueryAllowed(unsigned char c) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  static constexpr std::string_view marks = "!$&'()*+,-./:;=?@_~";
  return marks.find(static_cast<char>(c)) != std::string_view::npos;
}
}  // namespace

SUPURLBuilder SUPURLBuilder::URLWithBase(std::string_view base) {
  SUPURLBuilder builder;
  builder.appendComponent(base);
  return builder;
}

std::string SUPURLBuilder::escapeString(std::string_view string) {
  static constexpr char hex[] = "0123456789ABCDEF";
  std::string escaped;
  escaped.reserve(string.size());
  for (char ch : string) {
    auto c = static_cast<unsigned char>(ch);
    if (isQueryAllowed(c)) {
      escaped.push_back(ch);
    } else {
      escaped.push_back('%');
      escaped.push_back(hex[c >> 4]);
      escaped.push_back(hex[c & 0x0F]);
    }
  }
  return escaped;
}

void SUPURLBuilder::appendComponent(std::string_view component) {
  if (component.empty()) {
    console::SYLLogError("URLBuilder parameter component must not be empty");
    return;
  }
  URLString_.append(component);
}

void SUPURLBuilder::escapeAndAppendComponent(std::string_view component) {
  appendComponent(escapeString(component));
}

void SUPURLBuilder::appendSeparatorAndName(std::string_view name) {
  appendComponent(queryParams_ != 0 ? "&" : "?");
  ++queryParams_;
  appendComponent(name);
  appendComponent("=");
}

void SUPURLBuilder::appendValueForQueryParam(const std::optional<std::string>& value, std::string_view name) {
  if (!value) return;
  appendSeparatorAndName(name);
  escapeAndAppendComponent(*value);
}

void SUPURLBuilder::appendValueForQueryParam(const char* value, std::string_view name) {
  appendValueForQueryParam(value ? std::optional<std::string>(value) : std::nullopt, name);
}

void SUPURLBuilder::appendNumberText(const std::string& text, std::string_view name) {
  appendSeparatorAndName(name);
  escapeAndAppendComponent(text);
}

void SUPURLBuilder::appendValueForQueryParam(double value, std::string_view name) {
  appendNumberText(fmt::format("{}", value), name);
}

std::optional<std::string> SUPURLBuilder::URL() const {
  std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> url(curl_url(), &curl_url_cleanup);
  if (!url || curl_url_set(url.get(), CURLUPART_URL, URLString_.c_str(), 0) != CURLUE_OK) return std::nullopt;
  return URLString_;
}

}  // namespace symlift::network
