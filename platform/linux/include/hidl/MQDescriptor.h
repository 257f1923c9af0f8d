#pragma once

// Every generated header includes this file. Fast message queues cannot work without shared memory
// between processes, and no interface here passes one: there is nothing to declare.
#include <hidl/HidlSupport.h>
