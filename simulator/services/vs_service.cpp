#include "services/vs_service.h"

#include <algorithm>

#include "vs_tables.h"

namespace pelmar::sim {

namespace {

// What a request of the storage addresses: an EFS file by its path, or an item by up to three numbers.
template <typename Request>
auto key_of(const Request& request) {
  if constexpr (requires { request.path; }) {
    return FileTree::Key{request.path, request.qualifier, request.index};
  } else {
    ItemStore::Key key{request.item, 0, 0};
    if constexpr (requires { request.qualifier; }) key.qualifier = request.qualifier;
    if constexpr (requires { request.index; }) key.index = request.index;
    return key;
  }
}

// The subscription of a registration is its first option; without it the registration is for both.
template <typename Request>
std::optional<uint16_t> subscription_of(const Request& request) {
  return request.option1_valid ? std::optional(request.option1) : std::nullopt;
}

}  // namespace

struct VsService::Handlers {
  // --- commands and events ---

  static QmiError pass_through(VsService&, uint8_t, const vs::PassThroughRequest& request,
                               vs::PassThroughResponse& response) {
    response.data_len = request.payload_len;
    std::copy_n(request.payload, request.payload_len, response.data);
    return QMI_ERR_NONE_V01;
  }

  static QmiError set_event_report(VsService& self, uint8_t client, const vs::SetEventReportRequest& request,
                                   vs::PlainResponse&) {
    if (request.report_ab_valid) self.reports_ab_[client] = request.report_ab != 0;
    if (request.report_c_valid) self.reports_c_[client] = request.report_c != 0;
    return QMI_ERR_NONE_V01;
  }

  static QmiError get_feature_status(VsService& self, uint8_t, const vs::GetFeatureStatusRequest& request,
                                     vs::GetFeatureStatusResponse& response) {
    if (request.feature >= kFeatureLimit) return QMI_ERR_REQUESTED_NUM_UNSUPPORTED_V01;
    response.enabled = response.effective = self.features_[request.feature];
    return QMI_ERR_NONE_V01;
  }

  // A switched feature takes effect at once.
  static QmiError set_feature_status(VsService& self, uint8_t, const vs::SetFeatureStatusRequest& request,
                                     vs::PlainResponse&) {
    if (request.feature >= kFeatureLimit) return QMI_ERR_REQUESTED_NUM_UNSUPPORTED_V01;
    self.features_[request.feature] = request.enable != 0;
    return QMI_ERR_NONE_V01;
  }

  // --- storage ---

  template <auto Store, typename Request>
  static QmiError read(VsService& self, uint8_t, const Request& request, vs::ReadResponse& response) {
    std::span<const uint8_t> bytes;
    if (const QmiError error = (self.storage_.*Store).read(key_of(request), bytes)) return error;
    response.data_len = static_cast<uint32_t>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), response.data);
    return QMI_ERR_NONE_V01;
  }

  template <auto Store, typename Request>
  static QmiError write(VsService& self, uint8_t, const Request& request, vs::PlainResponse&) {
    return (self.storage_.*Store).write(key_of(request), std::span(request.data).first(request.data_len));
  }

  template <auto Store, typename Request>
  static QmiError remove(VsService& self, uint8_t, const Request& request, vs::PlainResponse&) {
    return (self.storage_.*Store).remove(key_of(request));
  }

  static QmiError efs_sync(VsService& self, uint8_t, const vs::EfsSyncRequest&, vs::PlainResponse&) {
    return self.storage_.sync();
  }

  // --- statistics ---

  static QmiError set_stats_report_status(VsService& self, uint8_t client,
                                          const vs::SetStatsReportStatusRequest& request,
                                          vs::SetStatsReportStatusResponse& response) {
    if (request.report == 0) {
      if (!request.stats_client_id_valid) return QMI_ERR_MISSING_ARG_V01;
      return self.reporters_.revoke(client, request.stats_client_id);
    }
    response.stats_client_id_valid = 1;
    return self.reporters_.grant(client, response.stats_client_id);
  }

  static QmiError register_stats(VsService& self, uint8_t client, const vs::RegisterStatsRequest& request,
                                 vs::PlainResponse&) {
    return self.reporters_.add(client, request.stats_client_id, subscription_of(request),
                               std::span(request.entries).first(request.entry_count));
  }

  static QmiError deregister_stats(VsService& self, uint8_t client, const vs::DeregisterStatsRequest& request,
                                   vs::PlainResponse&) {
    return self.reporters_.remove(client, request.stats_client_id, subscription_of(request),
                                  std::span(request.ids).first(request.id_count));
  }

  static QmiError get_stats_parameter(VsService& self, uint8_t, const vs::GetStatsParameterRequest& request,
                                      vs::GetStatsParameterResponse& response) {
    if (request.sub >= kSubscriptions) return QMI_ERR_INVALID_ARG_V01;
    response.records_valid = 1;
    response.record_count = request.record_count;
    for (uint32_t i = 0; i < request.record_count; ++i) {
      self.statistics_.read({request.sub, request.records[i].id}, response.records[i]);
    }
    return QMI_ERR_NONE_V01;
  }

  static QmiError clear_stats_parameter(VsService& self, uint8_t, const vs::ClearStatsParameterRequest& request,
                                        vs::PlainResponse&) {
    if (request.sub >= kSubscriptions) return QMI_ERR_INVALID_ARG_V01;
    for (const uint32_t id : std::span(request.ids).first(request.id_count)) self.statistics_.clear({request.sub, id});
    return QMI_ERR_NONE_V01;
  }

  // --- the modem itself ---

  static QmiError notify_shutdown(VsService& self, uint8_t, const vs::EmptyRequest&, vs::PlainResponse&) {
    ++self.shutdown_notices_;
    return QMI_ERR_NONE_V01;
  }

  static QmiError reset_modem(VsService& self, uint8_t, const vs::EmptyRequest&, vs::PlainResponse&) {
    self.reset_modem_();
    return QMI_ERR_NONE_V01;
  }

  // --- the messages ---

  static std::span<const MessageRow> rows() {
    static constexpr MessageRow kRows[] = {
        Handler<pass_through>::row(vs::kPassThrough, "pass-through"),
        Handler<set_event_report>::row(vs::kSetEventReport, "set-event-report"),
        Handler<get_feature_status>::row(vs::kGetFeatureStatus, "get-feature-status"),
        Handler<set_feature_status>::row(vs::kSetFeatureStatus, "set-feature-status"),
        Handler<read<&Storage::nv, vs::NvRequest>>::row(vs::kReadNv, "read-nv"),
        Handler<write<&Storage::nv, vs::WriteNvRequest>>::row(vs::kWriteNv, "write-nv"),
        Handler<remove<&Storage::nv, vs::NvRequest>>::row(vs::kDeleteNv, "delete-nv"),
        Handler<read<&Storage::efs, vs::EfsRequest>>::row(vs::kReadEfs, "read-efs"),
        Handler<write<&Storage::efs, vs::WriteEfsRequest>>::row(vs::kWriteEfs, "write-efs"),
        Handler<remove<&Storage::efs, vs::EfsRequest>>::row(vs::kDeleteEfs, "delete-efs"),
        Handler<read<&Storage::files, vs::EfsPathRequest>>::row(vs::kReadEfsPath, "read-efs-path"),
        Handler<write<&Storage::files, vs::WriteEfsPathRequest>>::row(vs::kWriteEfsPath, "write-efs-path"),
        Handler<remove<&Storage::files, vs::EfsPathRequest>>::row(vs::kDeleteEfsPath, "delete-efs-path"),
        Handler<read<&Storage::rfnv, vs::RfnvRequest>>::row(vs::kReadRfnv, "read-rfnv"),
        Handler<write<&Storage::rfnv, vs::WriteRfnvRequest>>::row(vs::kWriteRfnv, "write-rfnv"),
        Handler<remove<&Storage::rfnv, vs::RfnvRequest>>::row(vs::kDeleteRfnv, "delete-rfnv"),
        Handler<efs_sync>::row(vs::kEfsSync, "efs-sync"),
        Handler<set_stats_report_status>::row(vs::kSetStatsReportStatus, "set-stats-report-status"),
        Handler<register_stats>::row(vs::kRegisterStats, "register-stats"),
        Handler<deregister_stats>::row(vs::kDeregisterStats, "deregister-stats"),
        Handler<get_stats_parameter>::row(vs::kGetStatsParameter, "get-stats-parameter"),
        Handler<clear_stats_parameter>::row(vs::kClearStatsParameter, "clear-stats-parameter"),
        Handler<notify_shutdown>::row(vs::kNotifyShutdown, "notify-shutdown"),
        Handler<reset_modem>::row(vs::kResetModem, "reset-modem"),
    };
    return kRows;
  }
};

VsService::VsService(Storage& storage, std::function<void()> reset_modem, Reporters& reporters, Statistics& statistics)
    : Service("vs", &vs::kService, Handlers::rows()),
      storage_(storage),
      reset_modem_(std::move(reset_modem)),
      reporters_(reporters),
      statistics_(statistics) {}

bool VsService::is_registered_for(uint8_t client, uint16_t indication) const {
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

}  // namespace pelmar::sim
