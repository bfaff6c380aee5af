// Top of the layer stack: the one place that knows every layer.
#include "sdk/qv_modules.h"

#include "collector/collector_module.h"
#include "flowpath/flowpath_module.h"

void qvlb_register_modules() {
    qv_collector_register_hooks();
    qv_flowpath_register_hooks();
}
