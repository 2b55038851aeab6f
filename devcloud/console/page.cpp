#include "devcloud/console/page.h"

#include <charconv>
#include <ctime>

#include "devcloud/http/json_fields.h"

namespace devcloud::console {
namespace {

bool ContinuesCharacter(char c) { return (static_cast<unsigned char>(c) & 0xC0U) == 0x80U; }

}  // namespace

Table::Table(const std::string& caption, std::vector<std::string> columns)
    : caption_(caption), columns_(std::move(columns)) {}

void Table::AddRow(const std::string& id, const std::vector<Html>& cells) {
  rows_ << "<tr role=\"row\" id=\"" << id << "\"><th role=\"rowheader\" scope=\"row\" data-label=\""
        << columns_.at(0) << "\">" << cells.at(0) << "</th>";
  for (std::size_t i = 1; i < cells.size(); ++i) {
    rows_ << "<td role=\"cell\" data-label=\"" << columns_.at(i) << "\">" << cells[i] << "</td>";
  }
  rows_ << "</tr>\n";
}

Html Table::ToHtml(const std::string& when_empty) const {
  Html html;
  if (rows_.text().empty()) {
    html << "<p class=\"note\">" << when_empty << "</p>\n";
    return html;
  }
  html << "<table role=\"table\"><caption>" << caption_
       << "</caption>\n<thead role=\"rowgroup\"><tr role=\"row\">";
  for (const std::string& column : columns_) {
    html << "<th role=\"columnheader\" scope=\"col\">" << column << "</th>";
  }
  html << "</tr></thead>\n<tbody role=\"rowgroup\">\n" << rows_ << "</tbody></table>\n";
  return html;
}

Html FormStart(const View& view, const std::string& css_class, const Fields& hidden) {
  Html html;
  html << "<form class=\"" << css_class << "\" method=\"post\" action=\"" << view.address << "\">"
       << HiddenInput("csrf", view.csrf);
  for (const auto& [name, value] : hidden) html << HiddenInput(name, value);
  return html;
}

Html ButtonForm(const View& view, const std::string& label, const std::string& object,
                const Fields& hidden) {
  Html html = FormStart(view, "inline", hidden);
  html << "<button>" << label << Unseen(" " + object) << "</button></form>\n";
  return html;
}

Html Unseen(const std::string& text) {
  Html html;
  html << "<span class=\"unseen\">" << text << "</span>";
  return html;
}

Html ToCell(const std::string& text) {
  constexpr std::size_t kFitsInOneLine = 24;
  Html html;
  if (text.size() <= kFitsInOneLine) {
    html << (text.empty() ? std::string("–") : text);
  } else {
    html << "<span class=\"long\">" << Cut(text) << "</span>";
  }
  return html;
}

std::string Cut(const std::string& text, std::size_t most_bytes) {
  if (text.size() <= most_bytes) return text;
  std::size_t end = most_bytes;
  while (end > 0 && ContinuesCharacter(text[end])) --end;
  return text.substr(0, end) + "…";
}

std::string ToTimeText(std::int64_t seconds) {
  if (seconds == 0) return "never";
  const auto time = static_cast<std::time_t>(seconds);
  std::tm parts{};
  std::array<char, 64> text{};
  if (::gmtime_r(&time, &parts) == nullptr) return std::to_string(seconds);
  return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S UTC", &parts)};
}

std::int64_t ReadId(const Form& form) {
  const std::string text = form.Get("id");
  std::int64_t id = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, id);
  if (error != std::errc() || stop != end) throw BadInput("id must be a whole number");
  return id;
}

}  // namespace devcloud::console
