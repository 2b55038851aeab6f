// The fields of requests and answers, fit to be looked at: what may be a secret is not there in
// full. Long values are cut.
#pragma once

#include <string>
#include <vector>

#include "devcloud/console/page.h"

namespace devcloud::console {

enum class Direction { kRequest, kAnswer };

// Only values of fields that are known to be harmless stay readable.
[[nodiscard]] std::string Masked(const std::string& name, const std::string& value,
                                 Direction direction = Direction::kRequest);

[[nodiscard]] Fields MaskedHeaders(const std::vector<Header>& headers);
// Of a query, a form or a JSON text; one pair without a name says what anything else is.
[[nodiscard]] Fields MaskedFields(const std::string& text, Direction direction);

}  // namespace devcloud::console
