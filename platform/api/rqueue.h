// Intrusive singly linked queue: the record's first member is its link.
#pragma once

#include <cstdint>

struct rqueue_link {
    rqueue_link *next = nullptr;
};
struct rqueue {
    rqueue_link *head = nullptr;
    rqueue_link *tail = nullptr;
    std::uint32_t count = 0;
};

void renqueue(rqueue &queue, rqueue_link *element);      // appends at the tail
void runqueue(rqueue &queue, rqueue_link *element);      // unlinks; an element that is not in the queue is left alone
