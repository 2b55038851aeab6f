// The shortest libcurl program that posts a form: one_request URL FORM USER_AGENT
#include <curl/curl.h>

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  CURL* curl = curl_easy_init();
  curl_easy_setopt(curl, CURLOPT_URL, argv[1]);
  curl_easy_setopt(curl, CURLOPT_POSTFIELDS, argv[2]);
  curl_easy_setopt(curl, CURLOPT_USERAGENT, argv[3]);
  curl_easy_setopt(curl, CURLOPT_CAINFO, "/etc/ssl/certs/ca-certificates.crt");
  CURLcode result = curl_easy_perform(curl);
  curl_easy_cleanup(curl);
  return result == CURLE_OK ? 0 : 1;
}
