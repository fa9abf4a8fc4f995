// Which client ids of a modem the processes of this user hold, on disk, so that the ids of a process that was killed
// can be given back: a proxy before a modem does not do that, and a modem has few ids.
//
// An entry names the modem (socket and device), the boot, the owner (process, start time, pid namespace), the service
// and the id. It is written before the id is used. Entries lie in `client-ids` in $XDG_RUNTIME_DIR/pelmar, else in
// pelmar/client-ids below the user's state directory; both are the user's own, and nobody else may write there. Without
// such a place there is no record, and everything else works.
//
// An id in the record may belong to another program by now, where the modem restarted unnoticed, and any program may
// give back any id. So the modem's name contains what changes when its socket or device node is made anew, as after a
// restart on USB; and whoever learns of a restart in another way, at the latest from an id that the modem gives out a
// second time, deletes the modem's entries. An id that stays taken harms less than one that is taken from its user.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace pelmar::platform {

class ClientIdRecord {
 public:
  struct Id {
    uint8_t service;
    uint8_t client;
    bool operator==(const Id&) const = default;
  };

  // The record of one modem. `socket` is a path or an abstract @NAME, `device` a path.
  ClientIdRecord(const std::string& socket, const std::string& device);

  // An id that the modem has given to this process. Returns what take_abandoned() returns.
  std::vector<Id> add(Id id) const;

  // False where the id was void meanwhile, or given to another connection: it must not be given back.
  bool remove(Id id) const;

  // Leaves the id, which the modem may still count as taken, to the next take_abandoned().
  void abandon(Id id) const;

  // The ids of dead processes and abandoned ones, to be given back to the modem. They are this process's own now, which
  // removes or abandons them.
  std::vector<Id> take_abandoned() const;

  // All ids are void.
  void clear() const;

 private:
  std::string modem_;  // as an entry has it, without white space
};

}  // namespace pelmar::platform
