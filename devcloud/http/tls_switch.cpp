#include "devcloud/http/tls_switch.h"

#include <algorithm>
#include <array>
#include <utility>

#include "devcloud/http/json_fields.h"

namespace devcloud {
namespace {

constexpr std::array<std::pair<CertificateKind, const char*>, 10> kKinds{{
    {CertificateKind::kGood, "good"},
    {CertificateKind::kExpired, "expired"},
    {CertificateKind::kNotYetValid, "not_yet_valid"},
    {CertificateKind::kWrongName, "wrong_name"},
    {CertificateKind::kUnknownAuthority, "unknown_authority"},
    {CertificateKind::kSelfSigned, "self_signed"},
    {CertificateKind::kWeakKey, "weak_key"},
    {CertificateKind::kVeryWeakKey, "very_weak_key"},
    {CertificateKind::kIntermediate, "intermediate"},
    {CertificateKind::kMissingIntermediate, "missing_intermediate"},
}};

constexpr std::array<std::pair<TlsVersion, const char*>, 4> kVersions{{
    {TlsVersion::kTls10, "1.0"},
    {TlsVersion::kTls11, "1.1"},
    {TlsVersion::kTls12, "1.2"},
    {TlsVersion::kTls13, "1.3"},
}};

template <typename Table, typename Value>
const char* NameOf(const Table& table, Value value) {
  const auto* found = std::find_if(table.begin(), table.end(),
                                   [value](const auto& entry) { return entry.first == value; });
  return found->second;  // the tables are complete
}

template <typename Table>
auto ValueOf(const Table& table, const std::string& name) {
  const auto* found = std::find_if(table.begin(), table.end(),
                                   [&name](const auto& entry) { return entry.second == name; });
  if (found != table.end()) return found->first;
  std::string choices;
  for (const auto& entry : table) choices += std::string(" ") + entry.second;
  throw BadInput("\"" + name + "\" is none of:" + choices);
}

enum class Shown { kNo, kYes };

// Issued by an authority between ours and the server.
Identity IssueThroughIntermediate(const Authority& authority, const CertificateOptions& options,
                                  Shown shown) {
  const Authority between = authority.MakeIntermediate("An authority in between");
  Identity identity = between.Issue(options);
  if (shown == Shown::kYes) identity.certificate_pem += between.certificate_pem();
  return identity;
}

}  // namespace

Identity MakeServerIdentity(const Authority& authority, const std::vector<std::string>& names,
                            CertificateKind kind) {
  constexpr std::chrono::hours kDay(24);
  CertificateOptions options{.names = names};
  switch (kind) {
    case CertificateKind::kGood: break;
    case CertificateKind::kExpired:
      options.valid_from = -3 * kDay;
      options.valid_until = -kDay;
      break;
    case CertificateKind::kNotYetValid: options.valid_from = kDay; break;
    case CertificateKind::kWrongName: options.names = {"wrong.invalid"}; break;
    case CertificateKind::kUnknownAuthority:
      return Authority::Make("An authority that nobody knows").Issue(options);
    case CertificateKind::kSelfSigned: return MakeSelfSigned(options);
    case CertificateKind::kWeakKey: options.key = KeyKind::kRsa1024; break;
    case CertificateKind::kVeryWeakKey: options.key = KeyKind::kRsa512; break;
    case CertificateKind::kIntermediate:
      return IssueThroughIntermediate(authority, options, Shown::kYes);
    case CertificateKind::kMissingIntermediate:
      return IssueThroughIntermediate(authority, options, Shown::kNo);
  }
  return authority.Issue(options);
}

TlsSettings MakeTlsSettings(const Authority& authority, const std::vector<std::string>& names,
                            TlsChoice choice) {
  return {.identity = MakeServerIdentity(authority, names, choice.certificate),
          .lowest = std::min(TlsVersion::kTls12, choice.highest),
          .highest = choice.highest};
}

void TlsSwitch::Choose(TlsChoice choice) {
  const std::lock_guard lock(mutex_);
  server_.SetTls(MakeTlsSettings(authority_, names_, choice));
  choice_ = choice;
}

TlsChoice TlsSwitch::choice() const {
  const std::lock_guard lock(mutex_);
  return choice_;
}

const char* ToName(CertificateKind kind) { return NameOf(kKinds, kind); }

const char* ToName(TlsVersion version) { return NameOf(kVersions, version); }

CertificateKind CertificateKindFromName(const std::string& name) { return ValueOf(kKinds, name); }

TlsVersion TlsVersionFromName(const std::string& name) { return ValueOf(kVersions, name); }

}  // namespace devcloud
