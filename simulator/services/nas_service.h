// The NAS service (0x03): network access of two subscriptions. A client asks about the one that it has bound, or about
// the first. What the subscriptions have set is forgotten when the service restarts.
#pragma once

#include <array>
#include <cstdint>

#include "modem_clock.h"
#include "nas_messages.h"
#include "qmi/service.h"
#include "radio/radio_picture.h"

namespace pelmar::sim {

class NasService final : public Service {
 public:
  struct Subscription {
    uint32_t drx;  // the paging cycle's number: 6 to 9 for 32 to 256 frames
    uint8_t avoid_trm = 0;
  };

  NasService(const ModemClock& clock, RadioPictures& pictures);

  Subscription& subscription(size_t number) { return subscriptions_[number]; }

  void client_gone(uint8_t client) override;
  void restarted() override;

 private:
  static const std::array<MessageRow, 7> kMessages;

  Subscription& of(uint8_t client) { return subscriptions_[bound_[client]]; }
  RadioPicture& picture_of(uint8_t client) { return pictures_[bound_[client]]; }

  QmiError register_indications(uint8_t, const nas::RegisterIndicationsRequest&, nas::PlainResponse&);
  QmiError set_system_selection(uint8_t client, const nas::SetSystemSelectionPreferenceRequest& request,
                                nas::PlainResponse&);
  QmiError get_cell_location(uint8_t client, const nas::EmptyRequest&, nas::CellLocationResponse& response);
  QmiError bind_subscription(uint8_t client, const nas::BindSubscriptionRequest& request, nas::PlainResponse&);
  QmiError get_drx(uint8_t client, const nas::EmptyRequest&, nas::GetDrxResponse& response);
  QmiError set_avoid_trm(uint8_t client, const nas::SetAvoidTrmRequest& request, nas::PlainResponse&);
  QmiError set_lte_cell_lock(uint8_t client, const nas::SetLteCellLockRequest& request, nas::PlainResponse&);

  const ModemClock& clock_;
  RadioPictures& pictures_;
  std::array<Subscription, kSubscriptions> subscriptions_;
  std::array<uint8_t, 256> bound_{};  // by client id: the subscription
};

}  // namespace pelmar::sim
