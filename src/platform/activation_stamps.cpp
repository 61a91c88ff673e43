#include "platform/activation_stamps.h"

#include <sys/mman.h>

#include <cstdint>

namespace bootstrand {

namespace {

struct Slot {
  ClockReading start;
  ClockReading end;
  std::uint32_t started;  // 1 once start is written, likewise ended
  std::uint32_t ended;
};

struct Table {
  Slot* slots = nullptr;
  std::size_t count = 0;
};

Table& TheTable() {
  static Table table;
  return table;
}

Slot* SlotAt(std::size_t slot) {
  Table& table = TheTable();
  return slot < table.count ? &table.slots[slot] : nullptr;
}

}  // namespace

void ActivationStamps::Make(std::size_t slots) {
  Drop();
  if (slots == 0) return;
  // Anonymous shared memory is zero-filled and stays shared with every later fork.
  void* memory = mmap(nullptr, slots * sizeof(Slot), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return;
  TheTable() = {static_cast<Slot*>(memory), slots};
}

void ActivationStamps::Drop() {
  Table& table = TheTable();
  if (table.slots != nullptr) munmap(table.slots, table.count * sizeof(Slot));
  table = {};
}

void ActivationStamps::Started(std::size_t slot, const ClockReading& reading) {
  if (Slot* each = SlotAt(slot)) {
    each->ended = 0;
    each->start = reading;
    each->started = 1;
  }
}

void ActivationStamps::Ended(std::size_t slot, const ClockReading& reading) {
  if (Slot* each = SlotAt(slot)) {
    each->end = reading;
    each->ended = 1;
  }
}

std::optional<ClockReading> ActivationStamps::StartOf(std::size_t slot) {
  const Slot* each = SlotAt(slot);
  if (each == nullptr || each->started == 0) return std::nullopt;
  return each->start;
}

std::optional<ClockReading> ActivationStamps::EndOf(std::size_t slot) {
  const Slot* each = SlotAt(slot);
  if (each == nullptr || each->ended == 0) return std::nullopt;
  return each->end;
}

}  // namespace bootstrand
