#pragma once

// The IPC framework: framed packages over Unix-domain stream sockets, used by
// the service in the server role and by clients in the client role.

#include "utils/kavo_bpf_epoll_manager.h"
#include "utils/kavo_bpf_ipc_buffer.h"
#include "utils/kavo_bpf_ipc_package.h"
#include "utils/kavo_bpf_ipc_package_handler.h"
#include "utils/kavo_bpf_unix_ipc_manager.h"
