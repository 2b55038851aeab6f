// What the flows on tokens make of an HTTP answer: a failure becomes an exception whose text says
// what was asked for.
#pragma once

#include <string>

#include "pkce/http_request.h"

namespace nodelink {

// "Failed to WHAT, code=STATUS, resp=BODY"
std::string AnswerText(const std::string& what, const HttpAnswer& answer);

// Throws ZomiException with kBadResponse and "Failed to WHAT, reqcode=CODE, reqmsg=MESSAGE" when
// the transfer failed.
void CheckTransfer(const std::string& what, const HttpAnswer& answer);

// Throws ZomiException with kBadResponse and AnswerText when the status is not 200.
void CheckStatus(const std::string& what, const HttpAnswer& answer);

}  // namespace nodelink
