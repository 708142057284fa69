#include "rpc/transport/tcp_io.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "rpc/transport/common.h"
#include "rpc/transport/tcp_record.h"
#include "rpc/transport/tcp_settings.h"
#include "rpc/xdr/io_switches.h"
#include "rpc/xdr/x_rec.h"

namespace {

constexpr time_t kLongestStep = 1000000000;  // seconds; longer ones become this
constexpr size_t kMostAtOnce = 2147483644;   // bytes of one system call

// A read or a write, and how long it has waited.
struct Transfer {
  TcpRecord* record;
  bool writing;
  timeval elapsed;
};

// A time that can be waited for and added.
timeval waitable(timeval time) {
  if (time.tv_sec < 0 || time.tv_usec < 0) return {};
  return rpc_normalized({std::min(time.tv_sec, kLongestStep), time.tv_usec});
}

timeval monotonic_now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return {now.tv_sec, now.tv_nsec / 1000};
}

bool fail(const Transfer& transfer, int32_t error_number) {
  rpc_finish(transfer.record, transfer.writing ? RPC_CANTSEND : RPC_CANTRECV, error_number);
  return false;
}

// Asks the wait function. True when it cancels.
bool is_cancelled(const Transfer& transfer) {
  const rpc_wait& waiting = transfer.record->waiting;
  if (waiting.function == nullptr) return false;
  timeval now{};
  gettimeofday(&now, nullptr);
  if (waiting.function(&transfer.elapsed, waiting.argument, &now) == 0) return false;
  rpc_finish(transfer.record, RPC_CANCELLED);
  return true;
}

bool shall_block(const TcpRecord* record) {
  const BlockingMode mode = tcp_blocking_mode();
  if (mode == BlockingMode::kAlways) return true;
  bool unlimited = record->wait_state == kWaitNoLimit && record->waiting.function == nullptr;
  return unlimited && (mode == BlockingMode::kWithoutLimit || !record->watch_input);
}

// What every transfer begins with: a wait function may cancel it, or has cancelled the call
// when the transfer before was done.
bool begin(const Transfer& transfer) {
  TcpRecord* record = transfer.record;
  if (record->error.status == RPC_CANCELLED || is_cancelled(transfer)) return false;
  return tcp_set_blocking(record, shall_block(record)) || fail(transfer, errno);
}

bool means_waiting(int error) { return error == EAGAIN || error == ENOMEM || error == EINPROGRESS; }

// A call with time zero is sent whole: it waits for room as long as its peer needs, since
// what is left of a record cannot be taken back.
bool is_unlimited(const Transfer& transfer) {
  const TcpRecord* record = transfer.record;
  return record->wait_state == kWaitNoLimit || (transfer.writing && !timerisset(&record->wait));
}

// True when the limit is used up. With a limit of zero the socket is still looked at once.
bool is_timed_out(const Transfer& transfer) {
  if (is_unlimited(transfer) || !timerisset(&transfer.elapsed)) return false;
  const timeval limit = waitable(transfer.record->wait);
  if (timercmp(&transfer.elapsed, &limit, <)) return false;
  rpc_finish(transfer.record, RPC_TIMEDOUT);
  return true;
}

// How long the next wait may be: a step (zero: no step is set), or what is left of the limit.
timeval next_step(const Transfer& transfer) {
  timeval step = waitable(transfer.record->waiting.step);
  if (!timerisset(&step)) step = {kLongestStep, 0};
  if (is_unlimited(transfer)) return step;
  const timeval limit = waitable(transfer.record->wait);
  timeval left;
  timersub(&limit, &transfer.elapsed, &left);
  return timercmp(&left, &step, <) ? left : step;
}

// Counts a wait of `step` that began at `start`. A wait that ran out counts as its step, any
// other as the time that passed, so that signals cannot make a transfer endless.
void count_wait(Transfer* transfer, int ready, timeval step, timeval start) {
  if (ready != 0 || !timerisset(&step)) {
    const timeval now = monotonic_now();
    timersub(&now, &start, &step);
    if (!timerisset(&step)) step.tv_usec = 1;  // a wait within the clock's resolution
  }
  timeradd(&transfer->elapsed, &step, &transfer->elapsed);
}

// One wait until the socket is ready for the transfer, or has input when that is `watched`
// too. `*ready` becomes what it is ready for, as of poll; 0 after a step with nothing. False
// on failure.
bool wait_step(Transfer* transfer, bool watched, int* ready) {
  if (is_timed_out(*transfer)) return false;
  const int wanted = transfer->writing ? POLLOUT | (watched ? POLLIN : 0) : POLLIN;
  const timeval step = next_step(*transfer);
  const timeval start = monotonic_now();
  *ready = rpc_wait_for(transfer->record->socket, wanted | POLLPRI, &step);
  if (*ready < 0 && errno != EINTR) return fail(*transfer, errno);
  count_wait(transfer, *ready, step, start);
  if (*ready > 0) return (*ready & POLLPRI) == 0 || fail(*transfer, ECONNRESET);
  *ready = 0;
  return !is_cancelled(*transfer);
}

bool has_pending_room(const TcpRecord* record) { return record->pending_length < kTcpPendingRoom; }

// Reads ahead what fits. Four zero bytes between records are an empty fragment, which is
// dropped. False when nothing will come.
bool read_pending(TcpRecord* record) {
  ssize_t got = recv(record->socket, record->pending + record->pending_length,
                     kTcpPendingRoom - record->pending_length, MSG_DONTWAIT);
  if (got <= 0) return got < 0 && (errno == EINTR || means_waiting(errno));
  record->pending_length += static_cast<uint32_t>(got);
  constexpr uint8_t kZeros[kTcpPendingRoom] = {};
  if (!has_pending_room(record) && memcmp(record->pending, kZeros, sizeof kZeros) == 0 &&
      xdrrec_at_header(&record->stream)) {
    record->pending_length = 0;
  }
  return true;
}

bool wait_until_ready(Transfer* transfer) {
  TcpRecord* record = transfer->record;
  bool watched = transfer->writing && record->watch_input;
  for (;;) {
    int ready = 0;
    if (!wait_step(transfer, watched && has_pending_room(record), &ready)) return false;
    if (transfer->writing && ready == POLLIN) {
      watched = read_pending(record);
    } else if (ready != 0) {
      return true;
    }
  }
}

// Whether a system call that failed with errno is worth another try, after a wait where it
// needs one.
bool may_retry(Transfer* transfer) {
  if (errno == EINTR) return true;
  return means_waiting(errno) ? wait_until_ready(transfer) : fail(*transfer, errno);
}

// Moves the input that was read ahead to `buffer`, where a record stream always has room for it.
int64_t take_pending(TcpRecord* record, void* buffer) {
  memcpy(buffer, record->pending, record->pending_length);
  return std::exchange(record->pending_length, 0U);
}

// Reads once there is something. Returns 0 or less with the error set when it fails, also at
// the end of input.
int64_t read_ready(Transfer* transfer, const iovec* buffers, int count) {
  for (;;) {
    const ssize_t got = readv(transfer->record->socket, buffers, count);
    if (got > 0) return got;
    if (got == 0) errno = ECONNRESET;
    if (!may_retry(transfer)) return got;
  }
}

// Sets `pieces` to what is left of the two buffers behind the first `done` bytes.
// Returns the number of pieces.
size_t pieces_left(iovec* pieces, size_t done, const iovec* buffers) {
  const size_t most = rpc_get_io_switches().gather_writes ? 2 : 1;
  size_t count = 0;
  size_t room = kMostAtOnce;
  for (int i = 0; i < 2 && count < most; ++i) {
    size_t skipped = std::min(done, buffers[i].iov_len);
    size_t length = std::min(buffers[i].iov_len - skipped, room);
    done -= skipped;
    if (length == 0) continue;
    pieces[count++] = {static_cast<uint8_t*>(buffers[i].iov_base) + skipped, length};
    room -= length;
  }
  return count;
}

// Writes both buffers. Returns how many bytes; fewer than all with the error set.
size_t write_all(Transfer* transfer, const iovec* buffers) {
  size_t done = 0;
  while (done < buffers[0].iov_len + buffers[1].iov_len) {
    iovec pieces[2];
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = pieces_left(pieces, done, buffers);
    const ssize_t written = sendmsg(transfer->record->socket, &message, MSG_NOSIGNAL);
    if (written != -1) {
      done += static_cast<size_t>(written);
      transfer->elapsed = {};  // a peer that takes bytes is waited for anew
    } else if (!may_retry(transfer)) {
      break;
    }
  }
  return done;
}

// sendmsg wants pointers to writable bytes, though it only reads them.
void* writable(const void* bytes) { return const_cast<void*>(bytes); }

}  // namespace

bool tcp_set_blocking(TcpRecord* record, bool blocking) {
  SocketMode wanted = blocking ? SocketMode::kBlocking : SocketMode::kNonBlocking;
  if (record->socket_mode == wanted) return true;
  int flags = fcntl(record->socket, F_GETFL);  // when this fails, setting them fails too
  if (record->original_mode == SocketMode::kUnknown) {
    record->original_mode =
        (flags & O_NONBLOCK) != 0 ? SocketMode::kNonBlocking : SocketMode::kBlocking;
  }
  flags = blocking ? flags & ~O_NONBLOCK : flags | O_NONBLOCK;
  if (fcntl(record->socket, F_SETFL, flags) != 0) return false;
  record->socket_mode = wanted;
  return true;
}

int64_t tcp_read(void* transport, void* buffer, uint32_t length, void* second,
                 uint32_t second_length) {
  auto* record = static_cast<TcpRecord*>(transport);
  Transfer transfer = {record, false, {}};
  if (!begin(transfer)) return -1;
  int64_t got = take_pending(record, buffer);
  if (got == 0) {
    const bool scatter = second != nullptr && rpc_get_io_switches().scatter_reads;
    const iovec buffers[2] = {{buffer, length}, {second, second_length}};
    got = read_ready(&transfer, buffers, scatter ? 2 : 1);
  }
  if (got > 0) (void)is_cancelled(transfer);
  return got;
}

int64_t tcp_write(void* transport, const void* buffer, uint32_t length, const void* second,
                  uint32_t second_length) {
  Transfer transfer = {static_cast<TcpRecord*>(transport), true, {}};
  if (!begin(transfer)) return 0;
  const iovec buffers[2] = {{writable(buffer), length}, {writable(second), second_length}};
  const size_t done = write_all(&transfer, buffers);
  if (done == size_t{length} + second_length) (void)is_cancelled(transfer);
  return static_cast<int64_t>(done);
}
