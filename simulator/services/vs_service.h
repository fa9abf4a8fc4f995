// The vendor-specific service (0xE4): pass-through, event reports, storage, statistics and control of the modem.
//
// The response to a pass-through command has the command's payload.
#pragma once

#include <array>
#include <bitset>
#include <cstdint>
#include <functional>
#include <map>

#include "qmi/service.h"
#include "statistics/reporters.h"
#include "statistics/statistics.h"
#include "storage/storage.h"
#include "vs_messages.h"

namespace pelmar::sim {

class VsService final : public Service {
 public:
  // reset_modem is called for a client that asks for it, and acts after the response is sent.
  VsService(Storage& storage, std::function<void()> reset_modem, Reporters& reporters, Statistics& statistics);

  // Whether the client has asked for the indication; the status indication comes unasked.
  bool wants(uint8_t client, uint16_t indication) const;

  uint64_t shutdown_notices() const { return shutdown_notices_; }

  void client_gone(uint8_t client) override;
  void restarted() override;

 private:
  static const std::array<MessageRow, 24> kMessages;

  struct Feature {
    bool enabled = false;
    bool effective = false;
  };

  QmiError pass_through(uint8_t, const vs::PassThroughRequest& request, vs::PassThroughResponse& response);
  QmiError set_event_report(uint8_t client, const vs::SetEventReportRequest& request, vs::PlainResponse&);
  QmiError get_feature_status(uint8_t, const vs::GetFeatureStatusRequest& request,
                              vs::GetFeatureStatusResponse& response);
  QmiError set_feature_status(uint8_t, const vs::SetFeatureStatusRequest& request, vs::PlainResponse&);

  // Store is one of the storage's members; the request says which of its entries.
  template <auto Store, typename Request>
  QmiError read(uint8_t, const Request& request, vs::ReadResponse& response);
  template <auto Store, typename Request>
  QmiError write(uint8_t, const Request& request, vs::PlainResponse&);
  template <auto Store, typename Request>
  QmiError remove(uint8_t, const Request& request, vs::PlainResponse&);
  QmiError efs_sync(uint8_t, const vs::EfsSyncRequest&, vs::PlainResponse&);

  QmiError set_stats_report_status(uint8_t client, const vs::SetStatsReportStatusRequest& request,
                                   vs::SetStatsReportStatusResponse& response);
  QmiError register_stats(uint8_t client, const vs::RegisterStatsRequest& request, vs::PlainResponse&);
  QmiError deregister_stats(uint8_t client, const vs::DeregisterStatsRequest& request, vs::PlainResponse&);
  QmiError get_stats_parameter(uint8_t, const vs::GetStatsParameterRequest& request,
                               vs::GetStatsParameterResponse& response);
  QmiError clear_stats_parameter(uint8_t, const vs::ClearStatsParameterRequest& request, vs::PlainResponse&);

  QmiError notify_shutdown(uint8_t, const vs::EmptyRequest&, vs::PlainResponse&);
  QmiError reset_modem(uint8_t, const vs::EmptyRequest&, vs::PlainResponse&);

  Storage& storage_;
  const std::function<void()> reset_modem_;
  Reporters& reporters_;
  Statistics& statistics_;
  std::bitset<256> reports_ab_;  // by client id
  std::bitset<256> reports_c_;
  std::map<uint32_t, Feature> features_;
  uint64_t shutdown_notices_ = 0;
};

}  // namespace pelmar::sim
