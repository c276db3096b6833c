#ifndef TALP_MASTER_CARD_TABLE_H_
#define TALP_MASTER_CARD_TABLE_H_

#include "master/perifcard.h"
#include "thread/mutex.h"

// The records of all bus addresses, shared by the serial link task and the master. Whoever touches
// a record holds the lock, and never across a pause or a bus exchange.
struct CARD_TABLE {
  CMutexClass lock;
  PERIFCARD cards[kAddressCount + 1];  // by address; the last one is a spare that none reaches
};

#endif  // TALP_MASTER_CARD_TABLE_H_
