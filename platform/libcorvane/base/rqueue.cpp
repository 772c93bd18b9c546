// Intrusive singly linked queue.
#include "rqueue.h"

void renqueue(rqueue &queue, rqueue_link *element)
{
    element->next = nullptr;
    (queue.tail != nullptr ? queue.tail->next : queue.head) = element;
    queue.tail = element;
    ++queue.count;
}

void runqueue(rqueue &queue, rqueue_link *element)
{
    rqueue_link *before = nullptr;
    for (rqueue_link *at = queue.head; at != nullptr; before = at, at = at->next) {
        if (at != element)
            continue;
        (before != nullptr ? before->next : queue.head) = at->next;
        if (queue.tail == at)
            queue.tail = before;
        at->next = nullptr;
        --queue.count;
        return;
    }
}
