#include "kivo/zomi_server_config.h"

#include <cstdio>

#include "account/server_info.h"
#include "core/error_code.h"
#include "core/zomi_exception.h"

extern "C" int KIVOZOMIServerConfigGet(KIVOZOMI_SERVER_CONFIG* config) {
  if (config == nullptr) return nodelink::Fail(nodelink::kWrongParameters);
  try {
    const nodelink::ServerInfo servers;
    std::snprintf(config->payment_host, sizeof(config->payment_host), "%s",
                  servers.PaymentHost().c_str());
    std::snprintf(config->account_host, sizeof(config->account_host), "%s",
                  servers.AccountHost().c_str());
    return 0;
  } catch (const nodelink::ZomiException& failure) {
    return nodelink::Fail(failure.code());
  }
}
