// The allocator and lock hooks of the device tests, compiled into this program as well.
#include "audio/devices/AudioThreadAllocationHooks.cpp"
