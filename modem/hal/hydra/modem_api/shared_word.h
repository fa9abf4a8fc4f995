// Plain words that several threads read or write without a lock: fields of exported records, whose types are C's.
//
// A handle carries what its maker wrote before, hence acquire and release; on every processor that matters both cost
// what a plain access costs.
#pragma once

namespace pelmar {

template <typename T>
T load(const T& word) {
  return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}

template <typename T>
void store(T& word, T value) {
  __atomic_store_n(&word, value, __ATOMIC_RELEASE);
}

template <typename T>
T exchange(T& word, T value) {
  return __atomic_exchange_n(&word, value, __ATOMIC_ACQ_REL);
}

}  // namespace pelmar
