// Which client ids of a modem the processes of this user hold, on disk, so that the ids of a process that was killed
// can be given back: a proxy before a modem does not do that, and a modem has few ids.
//
// An entry names the modem (socket and device), the boot, the owner (process, start time, pid namespace, connection),
// the service and the id. It is written before the id is used. Entries are in the file `record` in pelmar/client-ids
// below the user's state directory, where no other user may write. Without such a place there is no record, and
// everything else works. Entries of another boot may be those of another machine that shares the user's home.
//
// An id in the record may belong to another program by now, where the modem restarted unnoticed, and any program may
// give back any id. So the modem's name contains what changes when its socket or device node is made anew, as after a
// restart on USB. Entries stand in the order of allocation: an id that proves void, at the latest because the modem
// gives it out a second time, makes those before it void too, and none that was allocated later. A live owner's entry
// stays, marked as void, until its owner sees the mark. An entry is erased before its id is given back, and no id is
// entered again once that was sent. An id that stays taken harms less than one that is taken from its user.
//
// Each function changes the record in one step. It waits until the deadline for other processes, and never for long.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "deadline.h"

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

  // Enters the id that the modem has given to this connection. Takes out the ids of dead processes and abandoned ones,
  // which the caller gives back to the modem or restores.
  std::vector<Id> add(Id id, const Deadline& deadline);

  // Takes out this connection's entry. True where the id is to be given back: it is not void, and no other process will
  // do so. An id without an entry is one that could not be entered.
  bool remove(const Deadline& deadline);

  // Enters ids as abandoned that are no longer this connection's but may still be taken, except those that have an
  // entry. They stand before all others, of which they make none void.
  void restore(const std::vector<Id>& ids, const Deadline& deadline) const;

  std::vector<Id> take_abandoned(const Deadline& deadline) const;

  // This connection's id is void: so are those that were allocated before it.
  void void_own(const Deadline& deadline);

 private:
  std::string modem_;    // as an entry has it, without white space
  uint64_t connection_;  // unique among the connections of a process
  bool has_entry_ = false;
};

}  // namespace pelmar::platform
