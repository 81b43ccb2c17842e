// The configuration manager: the registry's tree, its keys as objects, and registry callbacks.
//
//   registry_syscalls, hive_syscalls    Nt... and Zw... entry points
//   key_create_open       create and open          key_values          one value at a time
//   key_query             query, enumerate keys    key_multiple_values several values in one query
//   key_changes           delete, rename, flush, set information
//   key_hives, key_mounts save, restore, replace; load, unload
//   key_security(_calls)  security descriptors     object_security     the calls for them
//   hive_file, hive_text  hives as files, their text
//   registry_callbacks    who is told of all that  key_object          what a key handle stands for
//   key_name, key_lookup  names, paths and links   key_tree            keys and values in memory
//
// One reader-writer lock guards the whole tree (key_tree.h). It is never held while a callback runs
// or an object is created or destroyed.
#pragma once

#include "platform/kernel/object.h"

#include <string>
#include <vector>

namespace platform {

/// Open keys; the body is a KeyObject (key_object.h).
extern const ObjectType kKeyType;

/// Makes an empty registry with \REGISTRY, \REGISTRY\MACHINE and \REGISTRY\USER, and one permanent
/// object of kKeyType for \REGISTRY itself. Call before any registry routine, once per machine.
void InitializeRegistry();

/// Drops the tree, the permanent object and every callback that is still registered (without
/// clean-up notifications). Call when every key handle is closed.
void DestroyRegistry();

/// One line for each callback that is registered now, for leak reports.
std::vector<std::string> DescribeRegistryCallbacks();

}  // namespace platform
