// The modem's two standard services: NAS, the network access, and SAR, the limit of the transmit power.
#pragma once

#include <array>
#include <cstdint>

#include "nas_messages.h"
#include "qmi/service.h"
#include "radio/radio_picture.h"
#include "sar_messages.h"

namespace pelmar::sim {

// The NAS service (0x03) of two subscriptions. A client's requests are for the subscription that it has bound, or for
// the first one. The settings of the subscriptions are reset when the service restarts.
class NasService final : public Service {
 public:
  struct Subscription {
    uint32_t drx;  // the paging cycle's number: 6 to 9 for 32 to 256 frames
    uint8_t avoid_trm = 0;
  };

  NasService(const ModemClock& clock, RadioPictures& pictures);

  Subscription& subscription(size_t number) { return subscriptions_[number]; }

  void client_gone(uint8_t client) override { bound_[client] = 0; }
  void restarted() override;

 private:
  struct Handlers;

  Subscription& of(uint8_t client) { return subscriptions_[bound_[client]]; }
  RadioPicture& picture_of(uint8_t client) { return pictures_[bound_[client]]; }

  const ModemClock& clock_;
  RadioPictures& pictures_;
  std::array<Subscription, kSubscriptions> subscriptions_;
  std::array<uint8_t, 256> bound_{};  // by client id: the subscription
};

// The SAR service (0x11): a transmit-power state that clients set, kept until the modem restarts.
class SarService final : public Service {
 public:
  SarService();

  uint32_t state() const { return state_; }
  void restarted() override { state_ = 0; }

 private:
  struct Handlers;

  uint32_t state_ = 0;
};

}  // namespace pelmar::sim
