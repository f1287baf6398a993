#include "network/web_response.h"

#include <fmt/format.h>

#include <cstdlib>

namespace symlift::network {

namespace {

std::string describeBody(const SUPWebResponseBody& body) {
  struct Visitor {
    std::string operator()(const std::monostate&) const { return "(null)"; }
    std::string operator()(const nlohmann::json& json) const {
      return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    }
    std::string operator()(const support::PropertyList& list) const {
      if (!list) return "(null)";
      char* xml = nullptr;
      std::uint32_t length = 0;
      plist_to_xml(list.node(), &xml, &length);
      std::string text = xml ? std::string(xml, length) : std::string("(null)");
      std::free(xml);
      return text;
    }
    std::string operator()(const Data& data) const { return fmt::format("{{length = {}}}", data.size()); }
  };
  return std::visit(Visitor{}, body);
}

}  // namespace

std::optional<nlohmann::json> decodeJSONData(const Data& data) {
  auto json = nlohmann::json::parse(data.begin(), data.end(), nullptr, false);
  if (json.is_discarded()) return std::nullopt;
  return json;
}

std::string SUPWebResponse::description() const {
  std::string headers = "{";
  for (const auto& [name, value] : responseHeaders.fields()) {
    if (headers.size() > 1) headers += ", ";
    headers += fmt::format("{}: {}", name, value);
  }
  headers += "}";
  return fmt::format("{{request: {}, status: {}, body: {}, error: {}, headers: {}}}", requestURL, statusCode,
                     describeBody(body), error ? error->description() : std::string("(null)"), headers);
}

}  // namespace symlift::network
