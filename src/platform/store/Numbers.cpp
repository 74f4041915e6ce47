#include "platform/store/Numbers.h"

#include <limits>

namespace tarnwell::store {

// Table counter: one row a kind with the next number to issue (exact after a clean end) and the first number that was
// never reserved; row 4 holds in `next` the last committed event, row 5 whether the store is in use by a run that
// writes.

void Numbers::load() {
    Statement read(database_, "SELECT kind, next, reserved FROM counter");
    while (read.step()) {
        auto kind = read.unsignedAt(0);
        if (kind < kKinds) {
            counters_[kind].next = read.unsignedAt(1);
            counters_[kind].reserved = read.unsignedAt(2);
        } else if (kind == kKinds) {
            committed_ = read.unsignedAt(1);
        } else {
            unclean_ = read.unsignedAt(1) != 0;
        }
    }
    committedAtStart_ = committed_;
    for (Counter& counter : counters_) {
        // One number is left out, so that the last position of this start is none that the run before can have issued.
        if (unclean_) counter.next = counter.reserved + 1;
        counter.reserved = counter.next;
        counter.start = counter.next;
    }
}

void Numbers::writeReservations() {
    Statement write(database_, "INSERT OR REPLACE INTO counter(kind, next, reserved) VALUES(?, ?, ?)");
    for (std::size_t kind = 0; kind < kKinds; ++kind) {
        write.bind(1, kind).bind(2, counters_[kind].next).bind(3, counters_[kind].reserved).run();
    }
    write.bind(1, kKinds + 1).bind(2, 1).bind(3, 0).run();
}

void Numbers::prepareForWriting() {
    bool needed = false;
    for (Counter& counter : counters_) {
        if (counter.reserved - counter.next >= kBlock / 2) continue;
        counter.reserved = counter.next + kBlock;
        needed = true;
    }
    if (!needed) return;
    dirty_ = true;
    // FULL for this one commit: the reservation must outlast a power cut before any number of it leaves the program.
    database_.execute("PRAGMA synchronous=FULL");
    database_.execute("BEGIN IMMEDIATE");
    writeReservations();
    database_.execute("COMMIT");
    database_.execute("PRAGMA synchronous=NORMAL");
}

std::uint64_t Numbers::take(Kind kind) {
    Counter& counter = counters_[kind];
    if (counter.next == counter.reserved) {
        counter.reserved += kBlock;
        reservedInside_ = true;
    }
    return counter.next++;
}

DocumentID Numbers::nextDocument() {
    std::uint64_t number = take(kDocument);
    // Four billion documents later there is no honest way on: a reused ID would name two documents.
    TARNWELL_CHECK(number <= std::numeric_limits<std::uint32_t>::max());
    return DocumentID{static_cast<std::uint32_t>(number)};
}

void Numbers::beforeCommit() {
    if (reservedInside_) writeReservations();
    if (lastEvent() == committed_) return;
    committed_ = lastEvent();
    Statement write(database_, "INSERT OR REPLACE INTO counter(kind, next, reserved) VALUES(?, ?, 0)");
    write.bind(1, kKinds).bind(2, committed_).run();
}

void Numbers::afterTransaction() {
    if (!reservedInside_) return;
    reservedInside_ = false;
    // The session outgrew its reservation: one durable commit before its numbers are handed out. The synchronization
    // covers the log up to here, the session's own commit included.
    database_.execute("PRAGMA synchronous=FULL");
    database_.execute("BEGIN IMMEDIATE");
    writeReservations();
    database_.execute("COMMIT");
    database_.execute("PRAGMA synchronous=NORMAL");
}

void Numbers::saveExact() {
    if (!dirty_) return;
    database_.execute("PRAGMA synchronous=FULL");
    database_.execute("BEGIN IMMEDIATE");
    for (Counter& counter : counters_) counter.reserved = counter.next;
    writeReservations();
    Statement(database_, "UPDATE counter SET next = 0 WHERE kind = 5").run();
    database_.execute("COMMIT");
}

}  // namespace tarnwell::store
