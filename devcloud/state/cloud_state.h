// All that the cloud knows: made once, shared by the paths that it serves, the control interface
// and the console.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "devcloud/state/clients.h"
#include "devcloud/state/database.h"
#include "devcloud/state/faults.h"
#include "devcloud/state/held_answers.h"
#include "devcloud/state/request_log.h"
#include "devcloud/state/state_folder.h"
#include "devcloud/state/store.h"
#include "devcloud/state/token_store.h"
#include "devcloud/state/wall_clock.h"

namespace devcloud {

struct CloudState {
  // Goes on with what `folder` keeps; empty: keeps nothing. `hosts` are the cloud's own names.
  // Throws std::runtime_error.
  CloudState(const std::string& folder, std::vector<std::string> hosts, WallClock wall_clock)
      : clock(std::move(wall_clock)),
        database(DatabaseFile(folder)),
        store(database),
        faults(database),
        log(database),
        clients(database, std::move(hosts)),
        tokens(database, clock) {}

  WallClock clock;
  Database database;
  Store store;
  FaultBook faults;
  HeldAnswers held;
  RequestLog log;
  Clients clients;
  TokenStore tokens;
};

}  // namespace devcloud
