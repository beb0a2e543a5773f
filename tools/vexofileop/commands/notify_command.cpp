// vexofileop notify: tells the file-change service of a change that it did not see.
#include "notify/notify.h"
#include "tools/engine/report/names.h"
#include "tools/engine/walk/paths.h"
#include "tools/vexofileop/arguments/usage_error.h"
#include "tools/vexofileop/commands/commands.h"
#include "tools/vexofileop/commands/exit_status.h"
#include "tools/vexofileop/output/json.h"
#include "tools/vexofileop/terminal/console.h"
#include "tools/vexofileop/terminal/signals.h"

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <fmt/format.h>
#include <memory>
#include <optional>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tool {
namespace {

constexpr const char *kService = "/var/run/vexotifyd.sock";

struct Event {
    int code = 0;
    std::string path;
    std::optional<std::string> old;
    int seconds = 5;
};

enum class Sending { taken, noAnswer, ended, stopped, impossible };

// Why nobody would hear it; 0: somebody listens. Asked before, since the notification itself has no result. The probe
// is a connection without a message, which the service sees end at once.
int service_error() {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        return errno;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, kService, sizeof address.sun_path - 1);
    const int result = ::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    const int number = result == 0 || errno == EAGAIN ? 0 : errno; // EAGAIN: busy, and there
    ::close(fd);
    return number;
}

// The call does not return when the service ends in its middle, and keeps a processor busy: it runs in a process that
// can be ended.
Sending send(const Event &event) {
    const pid_t child = ::fork();
    if (child < 0) {
        return Sending::impossible;
    }
    if (child == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        VLIBVXNotifyForce(event.path.c_str(), event.old ? event.old->c_str() : nullptr, event.code);
        ::_exit(0);
    }
    const int process = static_cast<int>(::syscall(SYS_pidfd_open, child, 0));
    const bool over = process >= 0 && wait_readable(process, event.seconds * 1000);
    if (process >= 0) {
        ::close(process);
    }
    if (!over) {
        ::kill(child, SIGKILL);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return stop_signal() != 0 ? Sending::stopped
           : process < 0      ? Sending::impossible
           : !over            ? Sending::noAnswer
           : status == 0      ? Sending::taken
                              : Sending::ended;
}

std::string reason_for(Sending sending, const Event &event) {
    switch (sending) {
    case Sending::taken:
        return "";
    case Sending::noAnswer:
        return fmt::format("the service did not take the message within {} s; given up. It may hang, or have ended; "
                           "whether the event arrived is not known",
                           event.seconds);
    case Sending::stopped:
        return "stopped; whether the event arrived is not known";
    case Sending::impossible:
        return "the process that sends it could not be started";
    default:
        return "the process that sends it ended early; whether the event arrived is not known";
    }
}

int notify(const Event &event, bool json) {
    Console console;
    const int absent = service_error();
    const Sending sending = absent != 0 ? Sending::impossible : send(event);
    const std::string reason = absent != 0
                                   ? fmt::format("the file-change service does not answer at {}: {}; nothing was sent",
                                                 kService, std::strerror(absent))
                                   : reason_for(sending, event);
    const bool taken = reason.empty();
    if (!taken) {
        console.message(reason);
    }
    if (json) {
        Json line;
        line.add_text("event", "notify");
        line.add_number("code", event.code);
        line.add_name("path", event.path);
        if (event.old) {
            line.add_name("path_old", *event.old);
        }
        line.add_flag("taken", taken);
        if (!taken) {
            line.add_text("reason", reason);
        }
        console.line(line.line());
    }
    const bool written = console.check_output();
    return sending == Sending::stopped && stop_signal() != 0 ? exitSignal + stop_signal()
           : taken && written                                ? exitAll
                                                             : exitNone;
}

Event event_of(const std::vector<std::string> &operands, int seconds) {
    if (operands.size() < 2 || operands.size() > 3) {
        throw UsageError("give an event code, the path, and for a rename the path before it");
    }
    Event event;
    const std::string &code = operands[0];
    const auto [end, error] = std::from_chars(code.data(), code.data() + code.size(), event.code);
    if (error != std::errc() || end != code.data() + code.size()) {
        throw UsageError(fmt::format("{}: an event code is a number", engine::displayed(code)));
    }
    event.path = engine::absolute_path(operands[1]);
    if (operands.size() == 3) {
        event.old = engine::absolute_path(operands[2]);
    }
    event.seconds = seconds;
    return event;
}

} // namespace

void add_notify_command(const Command &program, int &status) {
    const Command command = program.add_command("notify", "Tell the file-change service of a change it missed");
    struct Options {
        bool json = false;
        int seconds = 5;
    };
    const auto options = std::make_shared<Options>();
    command.add_flag("--json", options->json, "one JSON object that tells what came of it");
    command.add_number("--timeout", "SECONDS", options->seconds, 1, 3600, "give up after so many seconds (5)");
    const Option operands = command.add_operands("EVENT", "EVENT PATH [OLD]");
    command.set_footer("\nEVENT is the service's own number and is passed on as it is; OLD is the path\n"
                       "before a rename. The service sends no answer. A service that hangs or ends in\n"
                       "the middle is waited for no longer than the time-out.\n"
                       "Exit status: 0 the system took the message for it, 2 it did not or wrong usage.\n"
                       "Example:\n"
                       "  vexofileop notify 2 /volume1/photo/new.jpg /volume1/photo/old.jpg");
    command.set_work([&status, options, operands] {
        status = notify(event_of(operands.values(), options->seconds), options->json);
    });
}

} // namespace tool
