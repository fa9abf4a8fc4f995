// What the services answer, and that what was set has its effect.
#include <gtest/gtest.h>

#include <memory>

#include "nas_messages.h"
#include "sar_messages.h"
#include "service_clients.h"
#include "sim_process.h"
#include "vs_messages.h"

namespace pelmar::sim::test {

namespace {

// The clock is held, so that the phone stays where it is.
class Services : public testing::Test {
 protected:
  ScratchDirectory directory_;
  SimProcess modem_{directory_, {"--clock-ms", "0"}};
};

TEST_F(Services, EventsGoToThoseThatAskedForThem) {
  VsClient ab(modem_);
  VsClient c(modem_);
  ab.want_events(true, false);
  c.want_events(false, true);
  EXPECT_EQ(modem_.operator_command("event 2 258 1 0")["sent"], 2);
  EXPECT_EQ(modem_.operator_command("event 3 7 record 1:82:0102 secondary 0:5: trailer 9")["sent"], 1);
  EXPECT_EQ(modem_.operator_command("event 4 7 0a0b 1 2")["sent"], 1);
  EXPECT_EQ(modem_.operator_command("event 5 3")["sent"], 1);
  EXPECT_EQ(modem_.operator_command("event 5 4 to " + std::to_string(ab.id()))["sent"], 1);
  c.want_events(false, false);
  EXPECT_EQ(modem_.operator_command("event 5 3")["sent"], 0);

  const Bytes status = tlv(0x01, {2, 1, 0, 0}) + tlv(0x02, {1}) + tlv(0x03, {0});
  const Bytes report_a = tlv(0x01, {7, 0, 0, 0}) + tlv(0x02, {1, 1, 0, 0, 0, 82, 0, 0, 0, 2, 0, 1, 2}) +
                         tlv(0x10, {1, 0, 0, 0, 0, 5, 0, 0, 0, 0, 0}) + tlv(0x11, {9, 0, 0, 0});
  const Bytes report_b = tlv(0x01, {7, 0, 0, 0}) + tlv(0x02, {2, 10, 11}) + tlv(0x03, {1, 0}) + tlv(0x04, {2, 0});
  const std::pair<uint16_t, Bytes> to_ab[] = {
      {0x0004, status}, {0x0203, report_a}, {0x0204, report_b}, {0x0601, tlv(0x01, {4})}};
  for (const auto& [message, tlvs] : to_ab) {
    const auto received = ab.connection().receive();
    ASSERT_TRUE(received);
    EXPECT_EQ(received->flags, 4);
    EXPECT_EQ(received->client, ab.id());
    EXPECT_EQ(received->transaction, 0);
    EXPECT_EQ(received->message, message);
    EXPECT_EQ(received->tlvs, tlvs) << message;
  }
}

TEST_F(Services, AStreamIsCompleteAndInOrder) {
  VsClient client(modem_);
  client.want_events(true, false);
  modem_.operator_command("stream 500");
  for (uint32_t i = 0; i < 500; ++i) {
    const auto received = client.connection().receive();
    ASSERT_TRUE(received) << i;
    ASSERT_EQ(received->tlvs.size(), 10672u);
    EXPECT_EQ(received->value(0x01), (Bytes{static_cast<uint8_t>(i), static_cast<uint8_t>(i >> 8), 0, 0}));
  }
  modem_.operator_command("stream 4000000 every 1000");
  ASSERT_TRUE(client.connection().receive());
  EXPECT_EQ(
      client.call<vs::GetFeatureStatusResponse>(vs::kGetFeatureStatus, vs::GetFeatureStatusRequest{300}, 42).enabled, 0)
      << "the stream lets requests through";
}

TEST_F(Services, FeaturesAreSwitched) {
  VsClient client(modem_);
  const vs::GetFeatureStatusRequest get{2};
  EXPECT_EQ(client.call<vs::GetFeatureStatusResponse>(vs::kGetFeatureStatus, get).enabled, 0);
  client.call<vs::PlainResponse>(vs::kSetFeatureStatus, vs::SetFeatureStatusRequest{2, 1, 1, 1});
  const auto on = client.call<vs::GetFeatureStatusResponse>(vs::kGetFeatureStatus, get);
  EXPECT_EQ(on.enabled, 1);
  EXPECT_EQ(on.effective, 1);
}

TEST_F(Services, StatisticsIdsAreGrantedAndVoidWithTheirClient) {
  VsClient client(modem_);
  VsClient other(modem_);
  const vs::SetStatsReportStatusRequest enable{1, 0, 0};
  for (uint32_t id = 0; id < 10; ++id) {
    const auto granted = client.call<vs::SetStatsReportStatusResponse>(vs::kSetStatsReportStatus, enable);
    EXPECT_EQ(granted.stats_client_id_valid, 1);
    EXPECT_EQ(granted.stats_client_id, id);
  }
  other.call<vs::SetStatsReportStatusResponse>(vs::kSetStatsReportStatus, enable, 5);
  const auto disable = [](uint32_t id) { return vs::SetStatsReportStatusRequest{0, 1, id}; };
  other.call<vs::SetStatsReportStatusResponse>(vs::kSetStatsReportStatus, disable(4), 41);
  client.call<vs::SetStatsReportStatusResponse>(vs::kSetStatsReportStatus, disable(4));
  EXPECT_EQ(other.call<vs::SetStatsReportStatusResponse>(vs::kSetStatsReportStatus, enable).stats_client_id, 4u);

  auto entries = std::make_unique<vs::RegisterStatsRequest>();
  entries->stats_client_id = 4;
  entries->entry_count = 2;
  entries->entries[0].stats_id = 0x52;
  entries->entries[1].stats_id = 0x67;
  client.call<vs::PlainResponse>(vs::kRegisterStats, *entries, 41);
  other.call<vs::PlainResponse>(vs::kRegisterStats, *entries);
  EXPECT_EQ(modem_.operator_command("status")["statistics"]["registrations"], 4) << "for both subscriptions";
  other.call<vs::PlainResponse>(vs::kDeregisterStats, vs::DeregisterStatsRequest{4, 1, {0x52}, 0, 0, 0, 0});
  other.call<vs::PlainResponse>(vs::kDeregisterStats, vs::DeregisterStatsRequest{4, 1, {0x52}, 0, 0, 0, 0}, 26);
  client.connection().close();
  while (modem_.operator_command("status")["statistics"]["reporters"] != 1) {
  }
}

TEST_F(Services, StatisticsValuesAreReadAndCleared) {
  VsClient client(modem_);
  modem_.operator_command("statistic 1 0x52 0102ff");
  auto request = std::make_unique<vs::GetStatsParameterRequest>();
  request->sub = 1;
  request->record_count = 2;
  request->records[0].id = 0x52;
  request->records[1].id = 0x53;
  auto read = [&] {
    return std::make_unique<vs::GetStatsParameterResponse>(
        client.call<vs::GetStatsParameterResponse>(vs::kGetStatsParameter, *request));
  };
  auto response = read();
  ASSERT_EQ(response->record_count, 2u);
  EXPECT_EQ(response->records[0].sub, 1);
  EXPECT_EQ(response->records[0].id, 0x52u);
  EXPECT_EQ(Bytes(response->records[0].data, response->records[0].data + 3), (Bytes{1, 2, 0xFF}));
  EXPECT_EQ(response->records[1].data_len, 0u);
  client.call<vs::PlainResponse>(vs::kClearStatsParameter, vs::ClearStatsParameterRequest{1, 0, 1, {0x52}});
  response = read();
  EXPECT_EQ(response->records[0].data_len, 3u);
  EXPECT_EQ(Bytes(response->records[0].data, response->records[0].data + 3), Bytes(3, 0));
}

TEST_F(Services, SarKeepsItsStateUntilItRestarts) {
  const auto object = sar_get_service_object_internal_v01(1, 15, 6);
  Client client(modem_, object);
  client.call<sar::RfSetStateResponse>(QMI_SAR_RF_SET_STATE_V01, sar::RfSetStateRequest{3, {}});
  client.call<sar::RfSetStateResponse>(QMI_SAR_RF_SET_STATE_V01, sar::RfSetStateRequest{21, {}}, 48);
  EXPECT_EQ(client.call<sar::RfGetStateResponse>(QMI_SAR_RF_GET_STATE_V01, sar::RfGetStateRequest{}).state, 3u);
  modem_.operator_command("service sar down");
  modem_.operator_command("service sar up");
  EXPECT_EQ(
      Client(modem_, object).call<sar::RfGetStateResponse>(QMI_SAR_RF_GET_STATE_V01, sar::RfGetStateRequest{}).state,
      0u);
}

TEST_F(Services, TheSubscriptionsSeeCellsOfTheirOwn) {
  NasClient first(modem_, 0);
  NasClient second(modem_, 1);
  const auto a = first.cells();
  const auto b = second.cells();
  for (const auto* each : {&a, &b}) {
    ASSERT_TRUE(each->intra_frequency_valid && each->inter_frequency_valid && each->nr_arfcn_valid);
    EXPECT_EQ(each->intra_frequency.cells[0].physical_cell_id, each->intra_frequency.serving_cell_id);
    EXPECT_GT(each->intra_frequency.cell_count, 1u);
    EXPECT_GT(each->inter_frequency.frequency_count, 1u);
    for (uint32_t i = 1; i < each->intra_frequency.cell_count; ++i) {
      EXPECT_LE(each->intra_frequency.cells[i].rsrp, each->intra_frequency.cells[i - 1].rsrp);
    }
  }
  EXPECT_NE(a.intra_frequency.global_cell_id, b.intra_frequency.global_cell_id);
  EXPECT_NE(a.nr_arfcn, b.nr_arfcn);
  first.call<nas::PlainResponse>(QMI_NAS_BIND_SUBSCRIPTION_V01, nas::BindSubscriptionRequest{2}, 48);
  EXPECT_NE(first.call<nas::GetDrxResponse>(QMI_NAS_GET_DRX_V01, nas::EmptyRequest{}).drx,
            second.call<nas::GetDrxResponse>(QMI_NAS_GET_DRX_V01, nas::EmptyRequest{}).drx);
  first.call<nas::PlainResponse>(QMI_NAS_SET_AVOID_TRM_V01, nas::SetAvoidTrmRequest{5});
  const auto radio = modem_.operator_command("status")["radio"];
  EXPECT_EQ(radio[0]["avoid_trm"], 5);
  EXPECT_EQ(radio[1]["avoid_trm"], 0);
}

TEST_F(Services, ARecycledIdForgetsItsSubscription) {
  constexpr uint8_t kNas = 3;
  QmuxClient client(modem_.socket());
  const uint8_t id = client.allocate(kNas);
  const Bytes unbound = client.ask(kNas, id, 0x0089).value(0x10);
  client.ask(kNas, id, 0x0045, tlv(0x01, {1}));
  EXPECT_NE(client.ask(kNas, id, 0x0089).value(0x10), unbound);
  uint8_t next = id;
  do {
    client.control(0x0023, tlv(0x01, {kNas, next}));
    next = client.allocate(kNas);
  } while (next != id && next != 0);
  EXPECT_EQ(client.ask(kNas, next, 0x0089).value(0x10), unbound);
}

TEST_F(Services, ALockedPhoneCampsOnAnAllowedCell) {
  NasClient first(modem_, 0);
  NasClient second(modem_, 1);
  const auto before = first.cells();
  const uint32_t of_second = second.cells().intra_frequency.global_cell_id;
  const nas::LteFrequency& other = before.inter_frequency.frequencies[0];
  const nas::LteCell target = other.cells[1];
  first.lock({{1, 1}, {target.physical_cell_id, other.earfcn}});
  const auto locked = first.cells();
  EXPECT_EQ(locked.intra_frequency.earfcn, other.earfcn);
  EXPECT_EQ(locked.intra_frequency.serving_cell_id, target.physical_cell_id);
  EXPECT_EQ(locked.intra_frequency.cells[0].physical_cell_id, target.physical_cell_id) << "the serving cell leads";
  EXPECT_EQ(locked.inter_frequency.frequencies[0].earfcn, before.intra_frequency.earfcn);
  EXPECT_EQ(second.cells().intra_frequency.global_cell_id, of_second);
  second.lock({{1, 1}});
  EXPECT_FALSE(second.cells().intra_frequency_valid);
  EXPECT_TRUE(first.cells().intra_frequency_valid);
  first.lock({{1, 1}});
  EXPECT_FALSE(first.cells().intra_frequency_valid) << "no such cell: out of service";
  first.lock({});
  EXPECT_EQ(first.cells().intra_frequency.global_cell_id, before.intra_frequency.global_cell_id);
}

TEST_F(Services, DisablingNrTakesItsCarrierAway) {
  NasClient first(modem_, 0);
  NasClient second(modem_, 1);
  for (const uint32_t mode : {1u, 2u}) {
    first.disable_nr(mode);
    EXPECT_FALSE(first.cells().nr_arfcn_valid);
    EXPECT_TRUE(first.cells().intra_frequency_valid);
    EXPECT_TRUE(second.cells().nr_arfcn_valid);
    first.disable_nr(0);
    EXPECT_TRUE(first.cells().nr_arfcn_valid);
  }
  first.disable_nr(3, 48);
}

}  // namespace

}  // namespace pelmar::sim::test
