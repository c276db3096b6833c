#ifndef TALP_MASTER_CARD_TABLE_H_
#define TALP_MASTER_CARD_TABLE_H_

#include "master/perifcard.h"
#include "thread/mutex.h"

// The records of all bus addresses, shared by the serial link task and the master. A thread holds
// the lock while it reads or writes records, but not during a pause or a bus exchange.
struct CARD_TABLE {
  mutable CMutexClass lock;
  PERIFCARD cards[kAddressCount + 1];  // by address; the last one has no address and is never used
};

#endif  // TALP_MASTER_CARD_TABLE_H_
