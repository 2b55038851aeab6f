#include "devcloud/console/page.h"
#include "devcloud/http/json_fields.h"

namespace devcloud::console {
namespace {

std::string ToText(const std::optional<std::string>& text) { return text ? *text : "none"; }

const char* ApiKeyState(const Device& device) {
  if (!device.api_key) return "none";
  return device.api_key_expired ? "expired" : "registered";
}

Html ScheduleForm(const View& view, const Device& device) {
  Html html = FormStart(view, "inline", {{"action", "set_schedule"}, {"serial", device.serial}});
  html << "<label>" << Unseen("Schedule for " + device.serial)
       << "<input name=\"schedule\" autocomplete=\"off\" placeholder=\"the account's\" value=\""
       << device.report_cron_timestring.value_or("") << "\"></label><button>Set"
       << Unseen(" schedule for " + device.serial) << "</button></form>";
  return html;
}

Html AccountCell(const View& view, const Device& device) {
  const std::optional<Link> link = view.state.store.FindLink(device.serial);
  if (!link) return ToCell("not linked");
  const std::optional<Account> account = view.state.store.FindAccount(link->user_id);
  Html html = ToCell(account ? account->email : link->user_id);
  html << " "
       << ButtonForm(view, "Unlink", device.serial,
                     {{"action", "unlink"}, {"serial", device.serial}});
  return html;
}

Html LastReport(const Device& device) {
  std::string text = ToTimeText(device.reported_at);
  if (!device.reported_timezone.empty()) text += ", device in " + device.reported_timezone;
  return ToCell(text);
}

Html Show(const View& view) {
  Table table("All devices", {"Serial number", "MAC address", "Account", "API key", "Last report",
                              "Schedule given in its answer", "Schedule for this device"});
  for (const Device& device : view.state.store.Devices()) {
    table.AddRow("device-" + device.serial,
                 {ToCell(device.serial), ToCell(device.mac), AccountCell(view, device),
                  ToCell(ApiKeyState(device)), LastReport(device),
                  ToCell(ToText(device.schedule_given)), ScheduleForm(view, device)});
  }
  Html html;
  html << "<p class=\"note\">A schedule is given to the device in the answer to its next report. "
          "An empty one is that of the account.</p>\n"
       << table.ToHtml("There is no device yet: one appears when it first registers or signs in.");
  return html;
}

Device Find(Store& store, const Form& form) {
  const std::optional<Device> device = store.FindDevice(form.Get("serial"));
  if (!device) throw BadInput("This device no longer exists.");
  return *device;
}

void SetSchedule(CloudState& state, const Form& form) {
  Transaction transaction(state.database);
  Device device = Find(state.store, form);
  const std::string schedule = form.Get("schedule");
  device.report_cron_timestring = schedule.empty() ? std::nullopt : std::optional(schedule);
  state.store.PutDevice(device);
  transaction.Commit();
}

std::string Act(const View& view, const Form& form) {
  const std::string action = form.Get("action");
  if (action == "set_schedule") {
    SetSchedule(view.state, form);
  } else if (action == "unlink") {
    view.state.store.Unlink(Find(view.state.store, form).serial);
  } else {
    throw BadInput("This page has no such action.");
  }
  return "device-" + form.Get("serial");
}

}  // namespace

const Page kDevicesPage{"devices", "Devices", Show, Act};

}  // namespace devcloud::console
