// A file with the client ids of a modem that this user's processes hold, so that the ids of a killed process can be
// released: a proxy in front of a modem does not do that, and a modem has few ids.
//
// An entry names the modem (socket and device), the boot, the owner (process, start time, pid namespace, connection),
// the service and the id. It is written before the id is used. Entries are in the file `record` in pelmar/client-ids
// below the user's state directory, where no other user may write. Without such a directory there is no record, and
// everything else works. Entries of another boot may belong to another machine that shares the user's home.
//
// An id in the record may belong to another program if the modem restarted and no process received the indication, and
// any program may release any id. So the modem's name contains what changes when its socket or device node is made
// anew, as after a restart on USB. Entries stand in the order of allocation: if an id proves void, at the latest
// because the modem allocates it a second time, the entries before it are void too, and none after it. The entry of a
// live owner stays, marked as void, until its owner sees the mark. An entry is erased before its id is released, and no
// id is entered again once its release was sent: an id that stays taken does less harm than one that is taken from its
// user.
//
// Each function changes the record in one step, and waits for other processes for a short time at most.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "deadline.h"
#include "inspection.h"

namespace pelmar::platform {

class ClientIdRecord {
 public:
  struct Id {
    uint8_t service;
    uint8_t client;
    bool operator==(const Id&) const = default;
  };

  // The record of one modem, for a connection to it. `socket` is a path or an abstract @NAME, `device` a path.
  ClientIdRecord(const std::string& socket, const std::string& device);

  // Enters the id that the modem allocated to this connection. Removes and returns the ids of dead processes and the
  // abandoned ids; the caller releases them at the modem or restores them.
  std::vector<Id> add(Id id, const Deadline& deadline);

  // Removes this connection's entry. True if the caller must release the id: it is not void, and no other process will
  // release it. An id without an entry is one that could not be entered.
  bool remove(const Deadline& deadline);

  // Enters, as abandoned, ids that no longer belong to this connection but may still be taken, except those that have
  // an entry. They stand before all other entries, so that they make none of them void.
  void restore(const std::vector<Id>& ids, const Deadline& deadline) const;

  // Removes and returns the ids of dead processes and the abandoned ids.
  std::vector<Id> take_abandoned(const Deadline& deadline) const;

  // The ids of all this user's processes.
  std::vector<HeldClientId> held(const Deadline& deadline) const;

  // This connection's id is void, and so are the ids that were allocated before it.
  void void_own(const Deadline& deadline);

 private:
  std::string modem_;    // the modem's name in an entry, without white space
  uint64_t connection_;  // unique among the connections of a process
  bool has_entry_ = false;
};

}  // namespace pelmar::platform
