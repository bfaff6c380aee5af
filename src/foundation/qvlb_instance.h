// Per-instance state. An application process serves one application instance; the proxy
// process serves many in one address space. Every module keeps what belongs to an instance
// (settings, registry, BT table, monitors, connections, record pool) in a state struct declared
// with QV_INSTANCE_STATE. The process's own instance uses a static copy, so a process that never
// creates a second instance pays one relaxed load per access. A proxy thread acts for the
// instance set with QVInstanceScope; threads started through qvlb_thread_create inherit their
// creator's instance, so an instance's control, data and reporting threads never see another's.
#ifndef QVLB_INSTANCE_H
#define QVLB_INSTANCE_H

#include <atomic>
#include <new>

#define QV_MAX_STATE_SLOTS 64

// One instance's module states, indexed by the slot each module got at static initialisation.
struct QVInstanceState {
    void* slot[QV_MAX_STATE_SLOTS];
};

// Non-zero once a second instance exists; until then every thread uses the process's own.
extern std::atomic<int> qvlbManyInstances;

namespace qvlb_detail {
extern thread_local QVInstanceState* currentInstance;
int registerStateSlot(void* (*create)(), void (*destroy)(void*));
}  // namespace qvlb_detail

// The instance the calling thread acts for; null means the process's own (static) instance.
inline QVInstanceState* qvlb_current_instance() {
    if (qvlbManyInstances.load(std::memory_order_relaxed) == 0) return nullptr;
    return qvlb_detail::currentInstance;
}

// Makes the calling thread act for inst (null: the process's own) and returns the previous one.
QVInstanceState* qvlb_set_current_instance(QVInstanceState* inst);

// A new instance with every module's state freshly constructed (the state structs' default
// member values). Null when out of memory. Sets qvlbManyInstances.
QVInstanceState* qvlb_instance_create();
// Destroys every module state of inst. No thread may act for it any more.
void qvlb_instance_destroy(QVInstanceState* inst);

// Acts for inst until the end of the scope.
class QVInstanceScope {
  public:
    explicit QVInstanceScope(QVInstanceState* inst) : previous_(qvlb_set_current_instance(inst)) {}
    ~QVInstanceScope() { qvlb_set_current_instance(previous_); }
    QVInstanceScope(const QVInstanceScope&) = delete;
    QVInstanceScope& operator=(const QVInstanceScope&) = delete;

  private:
    QVInstanceState* previous_;
};

// Declares Type as per-instance state reached through accessor(): the process's own copy is a
// static object, other instances get a new Type each. Use at namespace scope of one .cpp (or in
// a header as extern + QV_INSTANCE_STATE in the .cpp through QV_INSTANCE_STATE_EXTERN).
#define QV_INSTANCE_STATE(Type, accessor)                                                                    \
    namespace {                                                                                              \
    Type accessor##_own;                                                                                     \
    const int accessor##_slot = qvlb_detail::registerStateSlot(                                              \
        []() -> void* { return new (std::nothrow) Type(); }, [](void* p) { delete static_cast<Type*>(p); }); \
    inline Type& accessor() {                                                                                \
        QVInstanceState* inst = qvlb_current_instance();                                                     \
        return inst == nullptr ? accessor##_own : *static_cast<Type*>(inst->slot[accessor##_slot]);          \
    }                                                                                                        \
    }

// For state that several .cpp files of a module share: the header declares
//   Type& accessor();
// and exactly one .cpp defines it with QV_INSTANCE_STATE_DEFINE(Type, accessor).
#define QV_INSTANCE_STATE_DEFINE(Type, accessor)                                                             \
    namespace {                                                                                              \
    Type accessor##_own;                                                                                     \
    const int accessor##_slot = qvlb_detail::registerStateSlot(                                              \
        []() -> void* { return new (std::nothrow) Type(); }, [](void* p) { delete static_cast<Type*>(p); }); \
    }                                                                                                        \
    Type& accessor() {                                                                                       \
        QVInstanceState* inst = qvlb_current_instance();                                                     \
        return inst == nullptr ? accessor##_own : *static_cast<Type*>(inst->slot[accessor##_slot]);          \
    }

#endif
