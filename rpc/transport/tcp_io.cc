#include "rpc/transport/tcp_io.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "liblocal/base/vx_select.h"
#include "rpc/transport/tcp_record.h"
#include "rpc/transport/tcp_settings.h"
#include "rpc/xdr/io_switches.h"
#include "rpc/xdr/x_rec.h"

namespace {

constexpr long kMicroseconds = 1000000;      // in a second
constexpr time_t kLongestStep = 1000000000;  // seconds; longer ones become this
constexpr size_t kMostAtOnce = 2147483644;   // bytes of one system call

// A wait for the socket: what for, and for how long until now.
struct Waiter {
  TcpRecord* record;
  clnt_stat failure;  // RPC_CANTSEND or RPC_CANTRECV
  timeval elapsed;
};

// A time that can be waited for and added.
timeval tamed(timeval time) {
  if (time.tv_sec < 0 || time.tv_usec < 0) return {};
  if (time.tv_sec >= kLongestStep) return {kLongestStep, 0};
  return {time.tv_sec + time.tv_usec / kMicroseconds, time.tv_usec % kMicroseconds};
}

timeval monotonic_now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return {now.tv_sec, now.tv_nsec / 1000};
}

bool fail(const Waiter& waiter, int32_t error_number) {
  tcp_finish(waiter.record, waiter.failure, error_number);
  return false;
}

// Asks the wait function. True when it cancels.
bool is_cancelled(const Waiter& waiter) {
  const rpc_wait& waiting = waiter.record->waiting;
  if (waiting.function == nullptr) return false;
  timeval now{};
  gettimeofday(&now, nullptr);
  if (waiting.function(&waiter.elapsed, waiting.argument, &now) == 0) return false;
  tcp_finish(waiter.record, RPC_CANCELLED);
  return true;
}

bool shall_block(const TcpRecord* record) {
  const BlockingMode mode = tcp_blocking_mode();
  if (mode == BlockingMode::kAlways) return true;
  bool unlimited = record->wait_state == kWaitNoLimit && record->waiting.function == nullptr;
  return unlimited && (mode == BlockingMode::kWithoutLimit || !record->watch_input);
}

// What every transfer begins with.
bool begin(const Waiter& waiter) {
  TcpRecord* record = waiter.record;
  if (record->cancelled_at_end) {
    record->cancelled_at_end = false;
    return false;
  }
  return !is_cancelled(waiter);
}

void end(const Waiter& waiter) { waiter.record->cancelled_at_end = is_cancelled(waiter); }

bool means_waiting(int error) { return error == EAGAIN || error == ENOMEM || error == EINPROGRESS; }

// A call with time zero is sent whole: for room it waits as long as its peer needs, since
// what is left of a record cannot be taken back.
bool is_unlimited(const Waiter& waiter) {
  const TcpRecord* record = waiter.record;
  return record->wait_state == kWaitNoLimit ||
         (waiter.failure == RPC_CANTSEND && !timerisset(&record->wait));
}

// True when the limit is used up. One of zero still has its look.
bool is_timed_out(const Waiter& waiter) {
  if (is_unlimited(waiter) || !timerisset(&waiter.elapsed)) return false;
  const timeval limit = tamed(waiter.record->wait);
  if (timercmp(&waiter.elapsed, &limit, <)) return false;
  tcp_finish(waiter.record, RPC_TIMEDOUT);
  return true;
}

// The next wait: a step, or what is left of the limit, which is the last moment. A step
// of zero stands for none.
timeval next_step(const Waiter& waiter) {
  timeval step = tamed(waiter.record->waiting.step);
  if (!timerisset(&step)) step = {kLongestStep, 0};
  if (is_unlimited(waiter)) return step;
  const timeval limit = tamed(waiter.record->wait);
  timeval left;
  timersub(&limit, &waiter.elapsed, &left);
  return timercmp(&left, &step, <) ? left : step;
}

// Counts a wait of `step` that began at `start`. One that ran out counts as it is, any
// other with the time that passed; so signals and a socket that is ready and yet is
// not cannot make a wait endless.
void count_wait(Waiter* waiter, int ready, timeval step, timeval start) {
  if (ready != 0 || !timerisset(&step)) {
    const timeval now = monotonic_now();
    timersub(&now, &start, &step);
    // A clock that has not moved on counts too.
    if (!timerisset(&step)) step.tv_usec = 1;
  }
  timeradd(&waiter->elapsed, &step, &waiter->elapsed);
}

void hold_only(int fd, vx_fd_set* set) {
  VX_FD_ZERO_UP_TO(fd, set);
  VX_FD_SET(fd, set);
}

enum class Ready { kNo, kYes, kInput };

// One wait until the socket is ready for what the waiter wants, or has input when
// that is `watched` too. Reports kNo after a step with nothing; false on failure.
bool wait_step(Waiter* waiter, bool watched, Ready* outcome) {
  const int fd = waiter->record->socket;
  const bool writing = waiter->failure == RPC_CANTSEND;
  *outcome = Ready::kNo;
  if (is_timed_out(*waiter)) return false;
  const timeval step = next_step(*waiter);
  vx_fd_set input;
  vx_fd_set room;
  vx_fd_set exceptional;
  hold_only(fd, &input);
  hold_only(fd, &room);
  hold_only(fd, &exceptional);
  const timeval start = monotonic_now();
  timeval time = step;
  int ready = vx_select(fd + 1, !writing || watched ? &input : nullptr, writing ? &room : nullptr,
                        &exceptional, &time);
  if (ready < 0 && errno != EINTR) return fail(*waiter, errno);
  count_wait(waiter, ready, step, start);
  if (ready <= 0) return !is_cancelled(*waiter);
  if (VX_FD_ISSET(fd, &exceptional)) return fail(*waiter, ECONNRESET);
  *outcome = VX_FD_ISSET(fd, writing ? &room : &input) ? Ready::kYes : Ready::kInput;
  return true;
}

bool wait_until_readable(Waiter* waiter) {
  for (;;) {
    Ready outcome;
    if (!wait_step(waiter, false, &outcome)) return false;
    if (outcome != Ready::kNo) return true;
  }
}

bool has_pending_room(const TcpRecord* record) { return record->pending_length < kTcpPendingRoom; }

// Reads ahead what fits. Four zero bytes where a header is expected are an empty
// fragment, which means nothing. False when nothing will come.
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

bool wait_until_writable(Waiter* waiter) {
  TcpRecord* record = waiter->record;
  bool watched = record->watch_input;
  for (;;) {
    Ready outcome;
    if (!wait_step(waiter, watched && has_pending_room(record), &outcome)) return false;
    if (outcome == Ready::kYes) return true;
    if (outcome == Ready::kInput) watched = read_pending(record);
  }
}

// --- Reading -----------------------------------------------------------------------

int64_t take_pending(TcpRecord* record, void* buffer, uint32_t length) {
  uint32_t taken = std::min(length, record->pending_length);
  memcpy(buffer, record->pending, taken);
  record->pending_length -= taken;
  memmove(record->pending, record->pending + taken, record->pending_length);
  return taken;
}

// Reads once there is something. -1 with the error set, also at the end of input.
int64_t read_ready(Waiter* waiter, const iovec* buffers, int count) {
  TcpRecord* record = waiter->record;
  for (;;) {
    ssize_t got = readv(record->socket, buffers, count);
    if (got > 0) return got;
    const int error = got == 0 ? ECONNRESET : errno;
    if (error == EINTR) continue;
    if (!means_waiting(error)) {
      fail(*waiter, error);
      return -1;
    }
    if (!wait_until_readable(waiter)) return -1;
  }
}

// --- Writing -----------------------------------------------------------------------

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
size_t write_all(Waiter* waiter, const iovec* buffers) {
  size_t done = 0;
  while (done < buffers[0].iov_len + buffers[1].iov_len) {
    iovec pieces[2];
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = pieces_left(pieces, done, buffers);
    ssize_t written = sendmsg(waiter->record->socket, &message, MSG_NOSIGNAL);
    if (written >= 0) {
      done += static_cast<size_t>(written);
      waiter->elapsed = {};  // a peer that takes bytes is waited for anew
      continue;
    }
    if (errno == EINTR) continue;
    if (!means_waiting(errno)) {
      fail(*waiter, errno);
      return done;
    }
    if (!wait_until_writable(waiter)) return done;
  }
  return done;
}

// For sendmsg, which takes what it only reads as writable.
void* writable(const void* bytes) { return const_cast<void*>(bytes); }

}  // namespace

bool tcp_set_blocking(TcpRecord* record, bool blocking) {
  SocketMode wanted = blocking ? SocketMode::kBlocking : SocketMode::kNonBlocking;
  if (record->socket_mode == wanted) return true;
  int flags = fcntl(record->socket, F_GETFL);
  if (flags < 0) return false;
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
  Waiter waiter = {record, RPC_CANTRECV, {}};
  if (!begin(waiter)) return -1;
  int64_t got = 0;
  if (record->pending_length > 0) {
    got = take_pending(record, buffer, length);
  } else if (!tcp_set_blocking(record, shall_block(record))) {
    fail(waiter, errno);
  } else {
    const bool scatter = second != nullptr && rpc_get_io_switches().scatter_reads;
    const iovec buffers[2] = {{buffer, length}, {second, second_length}};
    got = read_ready(&waiter, buffers, scatter ? 2 : 1);
  }
  if (got <= 0) return -1;
  end(waiter);
  return got;
}

int64_t tcp_write(void* transport, const void* buffer, uint32_t length, const void* second,
                  uint32_t second_length) {
  auto* record = static_cast<TcpRecord*>(transport);
  Waiter waiter = {record, RPC_CANTSEND, {}};
  if (!begin(waiter)) return 0;
  if (!tcp_set_blocking(record, shall_block(record))) {
    fail(waiter, errno);
    return 0;
  }
  const iovec buffers[2] = {{writable(buffer), length}, {writable(second), second_length}};
  size_t done = write_all(&waiter, buffers);
  if (done == buffers[0].iov_len + buffers[1].iov_len) end(waiter);
  return static_cast<int64_t>(done);
}
