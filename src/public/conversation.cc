#include "public/conversation.h"

#include <arpa/inet.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>

#include "log/access_log.h"

namespace {

constexpr int answers_per_turn = 16;
constexpr std::uint64_t bytes_per_turn = 256 << 10;
constexpr std::uint64_t small_file = 32 << 10;  // bytes; leaves together with its head

// Puts a small file behind the head. Returns false when the file is shorter than it was.
bool take_in_file(Answer& answer) {
    const std::size_t head = answer.bytes.size();
    answer.bytes.resize(head + answer.size);
    const ssize_t count =
        pread(answer.file.get(), answer.bytes.data() + head, answer.size, static_cast<off_t>(answer.offset));
    answer.bytes.resize(head + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    answer.file = Descriptor();
    return answer.bytes.size() == head + answer.size;
}

// Who asked, as far as is known: a trusted proxy says for whom it asks.
std::string_view client_of(const Address& address, const Request& request) {
    if (!address.is_trusted) return address.text;
    const std::string_view list = request.field(Field::x_forwarded_for);
    std::string_view last = list.substr(list.rfind(',') + 1);
    last.remove_prefix(std::min(last.find_first_not_of(" \t"), last.size()));
    in6_addr parsed;
    const std::string text(last);
    const bool is_address =
        inet_pton(AF_INET, text.c_str(), &parsed) == 1 || inet_pton(AF_INET6, text.c_str(), &parsed) == 1;
    return is_address ? last : std::string_view(address.text);
}

}  // namespace

Next Conversation::go_on(Workspace& work) {
    is_forward = false;
    moved = 0;
    if (is_leaving) return drop_input();
    if (is_sending) {
        const Next next = go_on_sending(work);
        if (next != Next::turn) return next;
    }
    return take_requests(work);
}

Next Conversation::take_requests(Workspace& work) {
    char* const input = work.input.data();
    std::size_t begin = 0;  // of what is not answered yet
    std::size_t size = pending.copy(input, work.input.size());
    bool may_read = true;
    Next next = Next::turn;
    wanted = EPOLLIN;
    for (int answers = 0; answers < answers_per_turn && next == Next::turn;) {
        const ParsedHead head = parse_head({input + begin, size - begin}, seen, work.request);
        if (head.status != 0) {
            ++answers;
            seen = 0;
            begin = head.size != 0 ? begin + head.size : size;
            is_more_expected = !head.is_end_certain || begin < size;
            answer_request(head, work.request, work.site, work.moment, work.answer);
            next = begin_answer(work);
            continue;
        }
        seen = size - begin;
        next = Next::event;
        if (!may_read) break;
        std::copy(input + begin, input + size, input);
        size -= std::exchange(begin, 0);
        const ssize_t count = connection.read(input + size, work.input.size() - size);
        if (count == would_wait) {
            wanted = connection.wanted_event();
            break;
        }
        if (count <= 0) {
            if (connection.is_in_handshake()) tell_failed_handshake(work);
            return Next::close;
        }
        size += static_cast<std::size_t>(count);
        may_read = connection.has_more();
        next = Next::turn;
    }
    if (begin == size) {
        pending = std::string();  // frees the memory
    } else {
        pending.assign(input + begin, size - begin);
    }
    return next;
}

Next Conversation::begin_answer(Workspace& work) {
    Answer& answer = work.answer;
    is_forward = true;
    has_answered = true;
    is_kept = answer.is_kept;
    head_size = answer.head_size;
    sent = 0;
    if (access_log != nullptr) {
        write_access_line(work.access_line, client_of(address, work.request), work.log_time, work.request,
                          answer.status);
    }
    if (answer.file && answer.size <= small_file && !take_in_file(answer)) is_kept = false;

    std::string_view bytes = answer.bytes;
    const bool is_sound = send_bytes(bytes, answer.file || !is_kept);
    if (is_sound && bytes.empty() && !answer.file) return finish_answer(work, work.access_line);
    is_sending = true;
    unsent = bytes;
    file = std::move(answer.file);
    offset = answer.offset;
    left = file ? answer.size : 0;
    access_line = work.access_line;
    return is_sound ? go_on_sending(work) : Next::close;
}

Next Conversation::go_on_sending(Workspace& work) {
    std::string_view bytes = unsent;
    const bool is_sound = send_bytes(bytes, left > 0);
    unsent.erase(0, unsent.size() - bytes.size());
    if (!is_sound) return Next::close;
    if (!unsent.empty()) return Next::event;
    if (!send_file()) return Next::close;
    if (left > 0) return Next::event;
    is_sending = false;
    unsent = std::string();
    file = Descriptor();
    return finish_answer(work, std::exchange(access_line, {}));
}

// Returns false when the connection has failed. Takes what was sent from the front of bytes.
bool Conversation::send_bytes(std::string_view& bytes, bool more) {
    while (!bytes.empty()) {
        if (moved >= bytes_per_turn) {
            wait_for_room(EPOLLOUT);
            return true;
        }
        const ssize_t count = connection.write(bytes, more);
        if (count == would_wait) wait_for_room(connection.wanted_event());
        if (count < 0) return count == would_wait;
        bytes.remove_prefix(static_cast<std::size_t>(count));
        moved += static_cast<std::uint64_t>(count);
        sent += static_cast<std::uint64_t>(count);
        is_forward = true;
    }
    return true;
}

// Returns false when the connection has failed or the file has ended.
bool Conversation::send_file() {
    while (left > 0) {
        if (moved >= bytes_per_turn) {
            wait_for_room(EPOLLOUT);
            return true;
        }
        const ssize_t count = connection.send_file(file.get(), offset, std::min(left, bytes_per_turn - moved));
        if (count == would_wait) wait_for_room(connection.wanted_event());
        if (count < 0) return count == would_wait;
        const auto taken = static_cast<std::uint64_t>(count);
        offset += taken;
        left -= taken;
        moved += taken;
        sent += taken;
        is_forward = true;
    }
    return true;
}

void Conversation::wait_for_room(std::uint32_t event) {
    wanted = event;
    last_unacknowledged = connection.count_unacknowledged();
}

Next Conversation::finish_answer(Workspace& work, const AccessLine& line) {
    log_answer(work, line);
    if (is_kept) return Next::turn;
    connection.end_sending();
    is_leaving = true;
    wanted = EPOLLIN;
    // Closing a socket with unread bytes would reset the connection, perhaps before the client has read the answer.
    return is_more_expected || connection.drop() > 0 ? Next::event : Next::close;
}

void Conversation::log_answer(Workspace& work, const AccessLine& line) const {
    if (access_log == nullptr) return;
    const std::uint64_t body = sent > head_size ? sent - head_size : 0;
    work.log_lines.append(line.begin).append(std::to_string(body)).append(line.end);
}

Next Conversation::drop_input() {
    wanted = EPOLLIN;
    for (std::uint64_t dropped = 0; dropped < bytes_per_turn;) {
        const ssize_t count = connection.drop();
        if (count == would_wait) return Next::event;
        if (count <= 0) return Next::close;
        dropped += static_cast<std::uint64_t>(count);
    }
    return Next::event;
}

void Conversation::end(Workspace& work) {
    if (is_sending) log_answer(work, access_line);
    if (!is_leaving) connection.say_goodbye();
}

bool Conversation::has_client_taken() {
    if (!is_sending) return false;
    const int before = last_unacknowledged;
    last_unacknowledged = connection.count_unacknowledged();
    return last_unacknowledged < before;
}

Rest Conversation::rest() const {
    if (is_leaving) return Rest::leaving;
    return is_sending || (has_answered && pending.empty()) ? Rest::idle : Rest::beginning;
}

void Conversation::tell_failed_handshake(Workspace& work) const {
    const std::string reason = Connection::tls_failure();
    if (!reason.empty()) work.events.tell(EventLog::handshake, address.text, " TLS handshake failed: " + reason);
}
