#include "foundation/qvlb_instance.h"

#include <cstdlib>
#include <new>

std::atomic<int> qvlbManyInstances{0};

namespace qvlb_detail {

thread_local QVInstanceState* currentInstance = nullptr;

namespace {

struct SlotType {
    void* (*create)();
    void (*destroy)(void*);
};

// Filled during static initialisation only, before any thread runs.
SlotType slotTypes[QV_MAX_STATE_SLOTS];
int slotCount = 0;

}  // namespace

int registerStateSlot(void* (*create)(), void (*destroy)(void*)) {
    if (slotCount >= QV_MAX_STATE_SLOTS) abort();  // a build-time limit: raise QV_MAX_STATE_SLOTS
    slotTypes[slotCount] = {create, destroy};
    return slotCount++;
}

}  // namespace qvlb_detail

QVInstanceState* qvlb_set_current_instance(QVInstanceState* inst) {
    QVInstanceState* previous = qvlb_detail::currentInstance;
    qvlb_detail::currentInstance = inst;
    return previous;
}

QVInstanceState* qvlb_instance_create() {
    auto* inst = new (std::nothrow) QVInstanceState();
    if (inst == nullptr) return nullptr;
    for (int i = 0; i < qvlb_detail::slotCount; i++) {
        inst->slot[i] = qvlb_detail::slotTypes[i].create();
        if (inst->slot[i] == nullptr) {
            qvlb_instance_destroy(inst);
            return nullptr;
        }
    }
    qvlbManyInstances.store(1, std::memory_order_relaxed);
    return inst;
}

void qvlb_instance_destroy(QVInstanceState* inst) {
    if (inst == nullptr) return;
    for (int i = 0; i < qvlb_detail::slotCount; i++)
        if (inst->slot[i] != nullptr) qvlb_detail::slotTypes[i].destroy(inst->slot[i]);
    delete inst;
}
