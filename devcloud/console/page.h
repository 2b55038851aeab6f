// What the console's pages have in common.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "devcloud/http/form.h"
#include "devcloud/http/html.h"
#include "devcloud/state/cloud_state.h"

namespace devcloud::console {

struct View {
  CloudState& state;
  const std::vector<std::string>& paths;  // that the cloud serves
  std::string address;                    // of the page
  std::string csrf;                       // what its forms must bring back
};

struct Page {
  const char* name;  // the last part of its address
  const char* title;
  Html (*show)(const View& view);
  // Does what one of the page's forms asks; gives the id of the element to come back to, or "".
  // Throws BadInput.
  std::string (*act)(const View& view, const Form& form);
};

extern const Page kAccountsPage;
extern const Page kDevicesPage;
extern const Page kTokensPage;
extern const Page kRequestsPage;
extern const Page kFaultsPage;

// A table whose rows' first cells name them. On a narrow screen each row becomes a card, where the
// roles keep for a screen reader the table that the layout takes apart.
class Table {
 public:
  Table(const std::string& caption, std::vector<std::string> columns);

  // One cell for each column.
  void AddRow(const std::string& id, const std::vector<Html>& cells);
  // `when_empty` is the sentence that stands in place of no rows.
  [[nodiscard]] Html ToHtml(const std::string& when_empty) const;

 private:
  std::string caption_;
  std::vector<std::string> columns_;
  Html rows_;
};

using Fields = std::vector<std::pair<std::string, std::string>>;

// The start of a form that comes back to the page.
[[nodiscard]] Html FormStart(const View& view, const std::string& css_class, const Fields& hidden);
// A button with a form of its own. `object` says to a screen reader what it works on.
[[nodiscard]] Html ButtonForm(const View& view, const std::string& label, const std::string& object,
                              const Fields& hidden);
// Heard, not seen.
[[nodiscard]] Html Unseen(const std::string& text);
[[nodiscard]] Html ToCell(const std::string& text);

// At most that many bytes, cut between characters; what was cut shows as an ellipsis.
[[nodiscard]] std::string Cut(const std::string& text, std::size_t most_bytes = 80);
// "2026-11-21 15:52:01 UTC"; "never" for 0.
[[nodiscard]] std::string ToTimeText(std::int64_t seconds);

// Throws BadInput.
[[nodiscard]] std::int64_t ReadId(const Form& form);

}  // namespace devcloud::console
