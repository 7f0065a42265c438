#include "AlsaFolderWatch.h"

#include <cstring>
#include <sys/inotify.h>
#include <unistd.h>

namespace {

constexpr uint32_t folderEvents = IN_CREATE | IN_MOVED_TO | IN_ATTRIB | IN_DELETE | IN_MOVED_FROM | IN_OPEN |
                                  IN_CLOSE | IN_DELETE_SELF | IN_ONLYDIR;

} // namespace

AlsaFolderWatch::AlsaFolderWatch() : _descriptor(inotify_init1(IN_CLOEXEC | IN_NONBLOCK))
{
    _watch();
}

AlsaFolderWatch::~AlsaFolderWatch()
{
    if (_descriptor >= 0)
        close(_descriptor);
}

/// The folder exists while there are cards, or once there was one.
void AlsaFolderWatch::_watch()
{
    _above = inotify_add_watch(_descriptor, "/dev", IN_CREATE | IN_MOVED_TO | IN_ONLYDIR);
    _folder = inotify_add_watch(_descriptor, "/dev/snd", folderEvents);
}

void AlsaFolderWatch::read(const std::function<void(Event event, const std::string& name)>& report)
{
    alignas(inotify_event) char room[4096];
    for (ssize_t size; (size = ::read(_descriptor, room, sizeof room)) > 0;) {
        for (const char* at = room; at < room + size;) {
            inotify_event event;
            std::memcpy(&event, at, sizeof event);
            const std::string name(event.len > 0 ? at + sizeof event : "");
            at += sizeof event + event.len;
            if ((event.mask & IN_Q_OVERFLOW) != 0) {
                report(Event::Unknown, "");
            } else if (event.wd == _above && name == "snd") {
                _watch();
                report(Event::Unknown, "");
            } else if (event.wd == _folder && (event.mask & (IN_DELETE | IN_MOVED_FROM)) != 0) {
                report(Event::Gone, name);
            } else if (event.wd == _folder && (event.mask & (IN_OPEN | IN_CLOSE)) != 0) {
                report(Event::Used, name);
            } else if (event.wd == _folder && (event.mask & (IN_CREATE | IN_MOVED_TO | IN_ATTRIB)) != 0) {
                report(Event::Appeared, name);
            }
        }
    }
}
