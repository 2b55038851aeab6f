#include "devcloud/http/html.h"

namespace devcloud {
namespace {

// Sizes in rem follow the reader's own font size. A table becomes a list of cards where it would be
// wider than the screen.
constexpr Markup kStyle = R"css(
:root{color-scheme:light dark;--ink:#1c2430;--paper:#f6f7f9;--card:#fff;--line:#c3c9d2;
--edge:#6f7a89;--soft:#525d6b;--main:#20508f;--on-main:#fff;--bad:#a11212;--bad-paper:#fdecec}
@media(prefers-color-scheme:dark){:root{--ink:#e6e9ee;--paper:#14181e;--card:#1d232b;--line:#3a434f;
--edge:#8b97a6;--soft:#a9b4c1;--main:#8db8f2;--on-main:#10151c;--bad:#ffb0a8;--bad-paper:#3a1d1d}}
*{box-sizing:border-box}
body{margin:0;font:1rem/1.5 system-ui,sans-serif;color:var(--ink);background:var(--paper)}
main{max-width:76rem;margin:0 auto;padding:0 1rem 3rem}
main.narrow{max-width:26rem;padding-top:3rem}
h1{font-size:1.5rem;margin:1.5rem 0 .5rem}h2{font-size:1.15rem;margin:2rem 0 .5rem}
a{color:var(--main)}
:focus-visible{outline:3px solid var(--main);outline-offset:2px}
header{background:var(--card);border-bottom:1px solid var(--line)}
header>div{max-width:76rem;margin:0 auto;padding:.5rem 1rem;display:flex;flex-wrap:wrap;
gap:.25rem 1.5rem;align-items:center}
header strong{font-size:1.1rem}
nav ul{display:flex;flex-wrap:wrap;gap:.25rem;margin:0;padding:0;list-style:none}
nav a{display:block;padding:.35rem .7rem;border-radius:4px;text-decoration:none}
nav a:hover{text-decoration:underline}
nav a[aria-current]{background:var(--main);color:var(--on-main)}
.skip,.unseen{position:absolute;clip-path:inset(50%);width:1px;height:1px;overflow:hidden;
white-space:nowrap}
.skip:focus{clip-path:none;width:auto;height:auto;padding:.5rem 1rem;background:var(--card);z-index:1}
label{display:block;margin:1rem 0 0}
input,select{width:100%;padding:.45rem .5rem;font:inherit;color:inherit;background:var(--card);
border:1px solid var(--edge);border-radius:4px}
::placeholder{color:var(--soft);opacity:1}
button{padding:.45rem .9rem;font:inherit;cursor:pointer;border:1px solid var(--main);
border-radius:4px;background:var(--card);color:var(--main)}
button.main,button[aria-checked=true]{background:var(--main);color:var(--on-main)}
button[role=switch]{min-width:4rem}
form.fields{max-width:26rem}form.fields button{margin:1.25rem .5rem 0 0}
form.inline{display:flex;gap:.4rem;align-items:center;margin:.15rem 0}
form.inline label{margin:0;flex:1 1 9rem}
td form.inline{display:inline-flex;flex-wrap:wrap}
.error{padding:.6rem .8rem;border-left:4px solid var(--bad);background:var(--bad-paper);
color:var(--bad)}
.note,dt{color:var(--soft)}
table{border-collapse:collapse;width:100%;background:var(--card);border:1px solid var(--line)}
caption{text-align:left;font-weight:600;padding:1rem 0 .4rem}
th,td{text-align:left;vertical-align:baseline;padding:.45rem .6rem;
border-top:1px solid var(--line)}
.long,dt,dd{overflow-wrap:anywhere}details{min-width:20rem}
table+form.inline{margin-top:.75rem}
thead th{font-weight:600;color:var(--soft)}tbody th{font-weight:500}
tr:target{outline:2px solid var(--main);outline-offset:-2px}
dl{margin:.3rem 0;display:grid;grid-template-columns:minmax(6rem,max-content) 1fr;gap:0 .8rem}
dd{margin:0}
@media(max-width:52rem){table,caption,tbody,tr,th,td{display:block}
thead{position:absolute;clip-path:inset(50%);width:1px;height:1px;overflow:hidden}
table{background:none;border:0}
tr{background:var(--card);border:1px solid var(--line);border-radius:4px;margin:0 0 .75rem;
padding:.3rem 0}
tbody th,td{border:0;padding:.2rem .8rem}tbody th{font-weight:600}
tbody th::before,td::before{content:attr(data-label);display:block;color:var(--soft);
font-size:.85rem;font-weight:400}
form.switches td{display:inline-block;width:50%}details{min-width:0}
dl{grid-template-columns:1fr}dd{margin-bottom:.3rem}}
)css";

std::vector<Header> PageHeaders() {
  return {{"Content-Type", "text/html; charset=utf-8"},
          {"Cache-Control", "no-store"},
          // Not "no-referrer": the page's own forms would then come without their origin, which is
          // how they are told from those of strangers.
          {"Referrer-Policy", "same-origin"},
          {"X-Content-Type-Options", "nosniff"},
          {"X-Frame-Options", "DENY"},
          {"Content-Security-Policy",
           "default-src 'none'; style-src 'unsafe-inline'; base-uri 'none'; "
           "frame-ancestors 'none'"}};
}

}  // namespace

std::string EscapeHtml(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    switch (c) {
      case '&': escaped += "&amp;"; break;
      case '<': escaped += "&lt;"; break;
      case '>': escaped += "&gt;"; break;
      case '"': escaped += "&quot;"; break;
      case '\'': escaped += "&#39;"; break;
      default: escaped += c;
    }
  }
  return escaped;
}

Html& Html::operator<<(Markup markup) {
  text_ += markup.text;
  return *this;
}

Html& Html::operator<<(const Html& html) {
  text_ += html.text_;
  return *this;
}

Response HtmlResponse(int status, const std::string& title, const Html& body) {
  Html page;
  page << "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
       << "<meta name=\"viewport\" content=\"width=device-width,initial-scale=1\">"
       << "<title>" << title << "</title><style>" << kStyle << "</style></head>\n<body>" << body
       << "</body></html>\n";
  return {.status = status, .headers = PageHeaders(), .body = page.text()};
}

Html HiddenInput(const std::string& name, const std::string& value) {
  Html html;
  html << "<input type=\"hidden\" name=\"" << name << "\" value=\"" << value << "\">\n";
  return html;
}

}  // namespace devcloud
