// The question that a cluster layer would answer: which names move between nodes with a
// service.
//
// Thread safety: any thread may call it.
#pragma once

/// 1 when `name` is a virtual host that this node serves now, else 0. Without a cluster layer
/// it is always 0.
[[nodiscard]] int clu_is_localvirthost(const char* name);
