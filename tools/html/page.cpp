#include "tools/html/page.hpp"

#include <openssl/sha.h>

#include "tools/html/style.hpp"
#include "vision/text/internal/base64.hpp"
#include "vision/text/internal/utf8.hpp"

namespace html {
namespace {

// Allows one inline script, by its hash.
std::string script_policy(std::string_view script) {
  if (script.empty()) return {};
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(script.data()), script.size(), digest);
  return "; script-src 'sha256-" + vision::_b64({reinterpret_cast<const char*>(digest), sizeof digest}) + "'";
}

}  // namespace

std::string escaped(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    const auto c = vision::text::next_code_point(text);
    text.remove_prefix(c.size);
    switch (c.value) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&#39;"; break;
      default: {
        const bool control =
            (c.value < 0x20 && c.value != '\n' && c.value != '\t') || (c.value >= 0x7F && c.value < 0xA0);
        vision::text::append_utf8(out, control ? U'\uFFFD' : c.value);
      }
    }
  }
  return out;
}

// The policy is a second lock: should markup ever slip through the escaping, the
// browser still runs no script and loads nothing.
std::string page(std::string_view title, std::string_view html, const PageExtras& extras) {
  const std::string name = escaped(title);
  std::string out =
      "<!doctype html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
      "<meta http-equiv=\"Content-Security-Policy\" "
      "content=\"default-src 'none'; img-src data:; style-src 'unsafe-inline'" +
      script_policy(extras.script) +
      "\">\n"
      "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
      "<meta name=\"color-scheme\" content=\"light dark\">\n<title>";
  out += name;
  out += "</title>\n<style>";
  out += style_sheet;
  out += extras.style;
  out += "</style>\n</head>\n<body>\n<main>\n<h1>";
  out += name;
  out += "</h1>\n";
  out += html;
  out += "</main>\n";
  if (!extras.script.empty()) {
    out += "<script>";
    out += extras.script;
    out += "</script>\n";
  }
  return out + "</body>\n</html>\n";
}

std::string facts(const std::vector<std::pair<std::string, std::string>>& entries) {
  std::string out = "<dl class=\"facts\">";
  for (const auto& [name, value] : entries) {
    out += "<div><dt>" + escaped(name) + "</dt><dd>" + escaped(value) + "</dd></div>";
  }
  return out + "</dl>\n";
}

std::string folded(std::string_view summary, std::string_view text) {
  return "<details><summary>" + escaped(summary) + "</summary><pre>" + escaped(text) + "</pre></details>\n";
}

}  // namespace html
