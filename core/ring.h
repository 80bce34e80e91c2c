// SPDX-License-Identifier: Apache-2.0
// The library's one ring design: fixed-capacity histories and windows that
// overwrite their oldest entry instead of moving the others.
//
// RingSlots is the slot arithmetic alone: where the newest entry sits, how
// many entries are held, which slot the k-th newest or k-th oldest entry
// occupies and which slot the next push writes. Ring<T, Capacity> pairs it
// with its own storage; the exported DataBuffer records of the virtual
// gyroscope keep their host-visible layout and use the same arithmetic
// through ringSlotsOf/storeRingSlots (vgyro/data_buffer.h).
//
// The window length may be shorter than the capacity and set at run time
// (the azimuth windows); setting it empties the ring. Slots are used from 0
// up while filling, so entry k oldest-first sits in slot k until the first
// wrap. Nothing here allocates; every object is constexpr-constructible.
#pragma once

#include <cstdint>

namespace quelta {

class RingSlots {
 public:
  constexpr RingSlots() = default;
  constexpr explicit RingSlots(int32_t length) : length_(length) {}
  // A cursor at a known position: newest slot (-1 when empty) and count.
  constexpr RingSlots(int32_t length, int32_t newest, int32_t count)
      : length_(length), newest_(newest), count_(count) {}

  constexpr int32_t length() const { return length_; }
  constexpr int32_t count() const { return count_; }
  constexpr bool empty() const { return count_ == 0; }
  constexpr bool full() const { return count_ == length_; }
  // Slot of the newest entry, -1 when empty.
  constexpr int32_t newestSlot() const { return newest_; }

  // The slot the next push writes: after the newest, wrapping to 0.
  constexpr int32_t nextSlot() const {
    const int32_t next = newest_ + 1;
    return next == length_ ? 0 : next;
  }

  // Marks nextSlot() as written: it becomes the newest entry.
  constexpr void commit() {
    newest_ = nextSlot();
    if (count_ < length_) ++count_;
  }

  constexpr void clear() {
    newest_ = -1;
    count_ = 0;
  }

  // Slot of the k-th newest entry (k = 0 newest), -1 when there is none.
  constexpr int32_t newestFirst(int32_t k) const {
    if (k < 0 || k >= count_) return -1;
    return heldNewestFirst(k);
  }

  // As newestFirst, for a k the caller knows is held (0 <= k < count()).
  constexpr int32_t heldNewestFirst(int32_t k) const {
    const int32_t slot = newest_ - k;
    return slot < 0 ? slot + length_ : slot;
  }

  // Slot of the k-th oldest entry (k = 0 oldest), -1 when there is none.
  constexpr int32_t oldestFirst(int32_t k) const { return newestFirst(count_ - 1 - k); }

  // Calls visit(slot) for every held entry, oldest to newest.
  template <typename Visit>
  constexpr void visitOldestFirst(Visit visit) const {
    const int32_t oldest = full() ? nextSlot() : 0;
    if (count_ == 0) return;
    const int32_t end = oldest + count_ <= length_ ? oldest + count_ : length_;
    for (int32_t s = oldest; s < end; ++s) visit(s);
    for (int32_t s = 0; s < oldest + count_ - end; ++s) visit(s);
  }

  // Calls visit(slot) for every held entry, newest to oldest.
  template <typename Visit>
  constexpr void visitNewestFirst(Visit visit) const {
    if (count_ == 0) return;
    const int32_t wrapped = count_ - (newest_ + 1);
    for (int32_t s = newest_; s >= 0 && newest_ - s < count_; --s) visit(s);
    for (int32_t s = length_ - 1; s >= length_ - wrapped; --s) visit(s);
  }

 private:
  int32_t length_ = 0;
  int32_t newest_ = -1;
  int32_t count_ = 0;
};

// Up to Capacity entries of T in a window of length() <= Capacity.
template <typename T, int32_t Capacity>
class Ring {
  static_assert(Capacity > 0, "a ring holds at least one entry");

 public:
  static constexpr int32_t kCapacity = Capacity;

  constexpr Ring() : slots_(Capacity) {}

  constexpr int32_t length() const { return slots_.length(); }
  constexpr int32_t count() const { return slots_.count(); }
  constexpr bool empty() const { return slots_.empty(); }
  constexpr bool full() const { return slots_.full(); }
  constexpr const RingSlots& slots() const { return slots_; }

  // Empties the ring and uses the first `length` slots from now on;
  // lengths are clamped to [1, Capacity].
  constexpr void setLength(int32_t length) {
    const int32_t n = length < 1 ? 1 : (length > Capacity ? Capacity : length);
    slots_ = RingSlots(n);
  }

  // Empties the ring; the entries keep their old, now unreachable, values.
  constexpr void clear() { slots_.clear(); }

  // Appends v as the newest entry; a full ring drops its oldest.
  constexpr void push(const T& v) {
    entries_[slots_.nextSlot()] = v;
    slots_.commit();
  }

  // The entry the next push would overwrite, for filling in place; commit
  // with commitPush().
  constexpr T& pushSlot() { return entries_[slots_.nextSlot()]; }
  constexpr void commitPush() { slots_.commit(); }

  // k-th newest / k-th oldest entry; k must be below count().
  constexpr const T& newest(int32_t k = 0) const { return entries_[slots_.newestFirst(k)]; }
  constexpr const T& oldest(int32_t k = 0) const { return entries_[slots_.oldestFirst(k)]; }
  constexpr T& oldest(int32_t k = 0) { return entries_[slots_.oldestFirst(k)]; }

  // Raw slot access, for walking several rings that move together.
  constexpr const T& slot(int32_t s) const { return entries_[s]; }

  template <typename Visit>
  constexpr void forEachOldestFirst(Visit visit) const {
    slots_.visitOldestFirst([&](int32_t s) { visit(entries_[s]); });
  }

  template <typename Visit>
  constexpr void forEachNewestFirst(Visit visit) const {
    slots_.visitNewestFirst([&](int32_t s) { visit(entries_[s]); });
  }

 private:
  T entries_[Capacity] = {};
  RingSlots slots_;
};

}  // namespace quelta
