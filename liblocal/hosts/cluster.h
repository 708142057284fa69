// The question that a cluster layer answers: which names move from node to node with a
// service. Without such a layer none does.
//
// Thread safety: both operations may be called from any thread.
#pragma once

/// 1 when `name` is a virtual host that this node serves now, else 0.
[[nodiscard]] int clu_is_localvirthost(const char* name);

/// Lets `hook` answer clu_is_localvirthost; null ends that. It is called while the host
/// caches are locked, so it must not test names itself.
void clu_set_localvirthost_hook(int (*hook)(const char* name));
