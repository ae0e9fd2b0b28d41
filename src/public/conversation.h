#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "public/access_line.h"
#include "public/answer.h"
#include "public/connection.h"
#include "public/event_log.h"
#include "public/request.h"
#include "public/visitors.h"

// What the conversations of one loop use in turn, so that a resting connection needs hardly any memory.
struct Workspace {
    Workspace(const Site& served_site, EventLog& loop_events) : site(served_site), events(loop_events) {}

    const Site& site;
    EventLog& events;
    Moment moment;
    std::string log_time;   // moment as the access log writes it
    std::string log_lines;  // of answers that are complete; the loop writes them
    std::array<char, 2 * head_limit> input;
    Request request;
    Answer answer;
    AccessLine access_line;
};

// What a conversation waits for next.
enum class Next {
    event,  // the one that wanted_event names
    turn,   // nothing: it goes on after the others
    close   // nothing any more
};

// How long a conversation may stay as it is.
enum class Rest {
    beginning,  // the handshake or a request is not whole
    idle,       // nothing is asked, or the client takes its time with an answer
    leaving     // what the client still sends is dropped, so that it can read the last answer
};

// The requests and answers of one connection. Never waits; in one turn it answers at most 16 requests and moves at most
// about 256 KiB. An object belongs to one thread.
class Conversation {
  public:
    // Throws std::bad_alloc.
    Conversation(Descriptor socket, SSL_CTX* context, Address client_address)
        : address(std::move(client_address)), connection(std::move(socket), context) {}

    // Does what can be done now. Throws std::bad_alloc, and std::system_error when no descriptor is left; the
    // conversation is then over.
    Next go_on(Workspace& work);

    // To be called once before the conversation is destroyed: says goodbye and logs an answer that is cut short.
    void end(Workspace& work);

    // True when the last turn brought something forward: bytes were sent or a request came.
    bool has_progressed() const { return is_forward; }
    // True when the client has taken something since the last call, though not enough for another turn.
    bool has_client_taken();
    Rest rest() const;
    std::uint32_t wanted_event() const { return wanted; }
    int socket() const { return connection.socket(); }

    const Address address;

  private:
    Next take_requests(Workspace& work);
    Next begin_answer(Workspace& work);
    Next go_on_sending(Workspace& work);
    bool send_bytes(std::string_view& bytes, bool more);
    bool send_file();
    void wait_for_room(std::uint32_t event);
    Next finish_answer(Workspace& work, const AccessLine& line);
    void log_answer(Workspace& work, const AccessLine& line) const;
    Next drop_input();
    void tell_failed_handshake(Workspace& work) const;

    Connection connection;
    std::string pending;   // what was read and is not answered yet
    std::size_t seen = 0;  // of it, in search of the head's end
    std::uint32_t wanted = 0;

    // The answer that is being sent.
    std::string unsent;  // what is left of its head and page
    Descriptor file;     // and of its file
    std::uint64_t offset = 0;
    std::uint64_t left = 0;
    std::uint64_t sent = 0;  // bytes so far
    std::size_t head_size = 0;
    AccessLine access_line;

    std::uint64_t moved = 0;  // bytes in this turn
    int last_unacknowledged = 0;
    bool is_forward = false;
    bool is_sending = false;
    bool is_kept = true;
    bool is_more_expected = false;  // the client may be sending a body
    bool has_answered = false;      // at least one request
    bool is_leaving = false;
};
