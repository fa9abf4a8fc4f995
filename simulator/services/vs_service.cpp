#include "services/vs_service.h"

#include <algorithm>

#include "vs_tables.h"

namespace pelmar::sim {

namespace {

// Features that a client can switch; a higher number is none.
constexpr uint32_t kFeatureLimit = 256;

ItemStore::Key key_of(const vs::NvRequest& request) {
  return {request.item, request.qualifier, request.index};
}
ItemStore::Key key_of(const vs::WriteNvRequest& request) {
  return {request.item, request.qualifier, request.index};
}
ItemStore::Key key_of(const vs::EfsRequest& request) {
  return {request.item, request.qualifier, 0};
}
ItemStore::Key key_of(const vs::WriteEfsRequest& request) {
  return {request.item, request.qualifier, 0};
}
ItemStore::Key key_of(const vs::RfnvRequest& request) {
  return {request.item, 0, 0};
}
ItemStore::Key key_of(const vs::WriteRfnvRequest& request) {
  return {request.item, 0, 0};
}
FileTree::Key key_of(const vs::EfsPathRequest& request) {
  return {request.path, request.qualifier, request.index};
}
FileTree::Key key_of(const vs::WriteEfsPathRequest& request) {
  return {request.path, request.qualifier, request.index};
}

// The first option of a registration names a subscription; without it both are meant.
template <typename Request>
std::optional<uint16_t> subscription_of(const Request& request) {
  return request.option1_valid ? std::optional(request.option1) : std::nullopt;
}

}  // namespace

VsService::VsService(Storage& storage, std::function<void()> reset_modem, Reporters& reporters, Statistics& statistics)
    : Service("vs", &vs::kService, kMessages),
      storage_(storage),
      reset_modem_(std::move(reset_modem)),
      reporters_(reporters),
      statistics_(statistics) {}

bool VsService::wants(uint8_t client, uint16_t indication) const {
  switch (indication) {
    case vs::kReportAIndication:
    case vs::kReportBIndication:
      return reports_ab_[client];
    case vs::kReportCIndication:
      return reports_c_[client];
    default:
      return true;
  }
}

void VsService::client_gone(uint8_t client) {
  reports_ab_.reset(client);
  reports_c_.reset(client);
  reporters_.client_gone(client);
}

void VsService::restarted() {
  reporters_.restarted();
  statistics_.restarted();
}

// --- commands and events ---

QmiError VsService::pass_through(uint8_t, const vs::PassThroughRequest& request, vs::PassThroughResponse& response) {
  response.data_len = request.payload_len;
  std::copy_n(request.payload, request.payload_len, response.data);
  return QMI_ERR_NONE_V01;
}

QmiError VsService::set_event_report(uint8_t client, const vs::SetEventReportRequest& request, vs::PlainResponse&) {
  if (request.report_ab_valid) reports_ab_[client] = request.report_ab != 0;
  if (request.report_c_valid) reports_c_[client] = request.report_c != 0;
  return QMI_ERR_NONE_V01;
}

QmiError VsService::get_feature_status(uint8_t, const vs::GetFeatureStatusRequest& request,
                                       vs::GetFeatureStatusResponse& response) {
  if (request.feature >= kFeatureLimit) return QMI_ERR_REQUESTED_NUM_UNSUPPORTED_V01;
  const Feature feature = features_[request.feature];
  response.enabled = feature.enabled;
  response.effective = feature.effective;
  return QMI_ERR_NONE_V01;
}

// A switched feature takes effect at once.
QmiError VsService::set_feature_status(uint8_t, const vs::SetFeatureStatusRequest& request, vs::PlainResponse&) {
  if (request.feature >= kFeatureLimit) return QMI_ERR_REQUESTED_NUM_UNSUPPORTED_V01;
  const bool enable = request.enable != 0;
  features_[request.feature] = {enable, enable};
  return QMI_ERR_NONE_V01;
}

// --- storage ---

template <auto Store, typename Request>
QmiError VsService::read(uint8_t, const Request& request, vs::ReadResponse& response) {
  std::span<const uint8_t> bytes;
  if (const QmiError error = (storage_.*Store).read(key_of(request), bytes)) return error;
  response.data_len = static_cast<uint32_t>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), response.data);
  return QMI_ERR_NONE_V01;
}

template <auto Store, typename Request>
QmiError VsService::write(uint8_t, const Request& request, vs::PlainResponse&) {
  return (storage_.*Store).write(key_of(request), std::span(request.data).first(request.data_len));
}

template <auto Store, typename Request>
QmiError VsService::remove(uint8_t, const Request& request, vs::PlainResponse&) {
  return (storage_.*Store).remove(key_of(request));
}

QmiError VsService::efs_sync(uint8_t, const vs::EfsSyncRequest&, vs::PlainResponse&) {
  return storage_.sync();
}

// --- statistics ---

QmiError VsService::set_stats_report_status(uint8_t client, const vs::SetStatsReportStatusRequest& request,
                                            vs::SetStatsReportStatusResponse& response) {
  if (request.report == 0) {
    if (!request.stats_client_id_valid) return QMI_ERR_MISSING_ARG_V01;
    return reporters_.revoke(client, request.stats_client_id);
  }
  response.stats_client_id_valid = 1;
  return reporters_.grant(client, response.stats_client_id);
}

QmiError VsService::register_stats(uint8_t client, const vs::RegisterStatsRequest& request, vs::PlainResponse&) {
  return reporters_.add(client, request.stats_client_id, subscription_of(request),
                        std::span(request.entries).first(request.entry_count));
}

QmiError VsService::deregister_stats(uint8_t client, const vs::DeregisterStatsRequest& request, vs::PlainResponse&) {
  return reporters_.remove(client, request.stats_client_id, subscription_of(request),
                           std::span(request.ids).first(request.id_count));
}

QmiError VsService::get_stats_parameter(uint8_t, const vs::GetStatsParameterRequest& request,
                                        vs::GetStatsParameterResponse& response) {
  if (request.sub >= kSubscriptions) return QMI_ERR_INVALID_ARG_V01;
  response.records_valid = 1;
  response.record_count = request.record_count;
  for (uint32_t i = 0; i < request.record_count; ++i) {
    statistics_.read({request.sub, request.records[i].id}, response.records[i]);
  }
  return QMI_ERR_NONE_V01;
}

QmiError VsService::clear_stats_parameter(uint8_t, const vs::ClearStatsParameterRequest& request, vs::PlainResponse&) {
  if (request.sub >= kSubscriptions) return QMI_ERR_INVALID_ARG_V01;
  for (const uint32_t id : std::span(request.ids).first(request.id_count)) statistics_.clear({request.sub, id});
  return QMI_ERR_NONE_V01;
}

// --- the modem itself ---

QmiError VsService::notify_shutdown(uint8_t, const vs::EmptyRequest&, vs::PlainResponse&) {
  ++shutdown_notices_;
  return QMI_ERR_NONE_V01;
}

QmiError VsService::reset_modem(uint8_t, const vs::EmptyRequest&, vs::PlainResponse&) {
  reset_modem_();
  return QMI_ERR_NONE_V01;
}

// --- the messages ---

constexpr std::array<MessageRow, 24> VsService::kMessages = {{
    Answers<&VsService::pass_through>::row(vs::kPassThrough, "pass-through"),
    Answers<&VsService::set_event_report>::row(vs::kSetEventReport, "set-event-report"),
    Answers<&VsService::get_feature_status>::row(vs::kGetFeatureStatus, "get-feature-status"),
    Answers<&VsService::set_feature_status>::row(vs::kSetFeatureStatus, "set-feature-status"),
    Answers<&VsService::read<&Storage::nv, vs::NvRequest>>::row(vs::kReadNv, "read-nv"),
    Answers<&VsService::write<&Storage::nv, vs::WriteNvRequest>>::row(vs::kWriteNv, "write-nv"),
    Answers<&VsService::remove<&Storage::nv, vs::NvRequest>>::row(vs::kDeleteNv, "delete-nv"),
    Answers<&VsService::read<&Storage::efs, vs::EfsRequest>>::row(vs::kReadEfs, "read-efs"),
    Answers<&VsService::write<&Storage::efs, vs::WriteEfsRequest>>::row(vs::kWriteEfs, "write-efs"),
    Answers<&VsService::remove<&Storage::efs, vs::EfsRequest>>::row(vs::kDeleteEfs, "delete-efs"),
    Answers<&VsService::read<&Storage::files, vs::EfsPathRequest>>::row(vs::kReadEfsPath, "read-efs-path"),
    Answers<&VsService::write<&Storage::files, vs::WriteEfsPathRequest>>::row(vs::kWriteEfsPath, "write-efs-path"),
    Answers<&VsService::remove<&Storage::files, vs::EfsPathRequest>>::row(vs::kDeleteEfsPath, "delete-efs-path"),
    Answers<&VsService::read<&Storage::rfnv, vs::RfnvRequest>>::row(vs::kReadRfnv, "read-rfnv"),
    Answers<&VsService::write<&Storage::rfnv, vs::WriteRfnvRequest>>::row(vs::kWriteRfnv, "write-rfnv"),
    Answers<&VsService::remove<&Storage::rfnv, vs::RfnvRequest>>::row(vs::kDeleteRfnv, "delete-rfnv"),
    Answers<&VsService::efs_sync>::row(vs::kEfsSync, "efs-sync"),
    Answers<&VsService::set_stats_report_status>::row(vs::kSetStatsReportStatus, "set-stats-report-status"),
    Answers<&VsService::register_stats>::row(vs::kRegisterStats, "register-stats"),
    Answers<&VsService::deregister_stats>::row(vs::kDeregisterStats, "deregister-stats"),
    Answers<&VsService::get_stats_parameter>::row(vs::kGetStatsParameter, "get-stats-parameter"),
    Answers<&VsService::clear_stats_parameter>::row(vs::kClearStatsParameter, "clear-stats-parameter"),
    Answers<&VsService::notify_shutdown>::row(vs::kNotifyShutdown, "notify-shutdown"),
    Answers<&VsService::reset_modem>::row(vs::kResetModem, "reset-modem"),
}};

}  // namespace pelmar::sim
