// Keeps a list of what a library or folder holds, and prints it whenever it changed: mirror '#org.example.Notes'
#include <tarnwell/client.h>

#include <condition_variable>
#include <iostream>
#include <map>
#include <mutex>
using namespace tarnwell::client;
using Mirror = std::map<std::string, Item>;

void add(Client& host, Mirror& mirror, const std::string& folder) {
    for (const Item& item : host.listAll(folder)) {
        mirror[item.identifier] = item;
        if (item.isFolder) add(host, mirror, item.identifier);
    }
}
void remove(Mirror& mirror, const std::string& identifier) {  // and all that hangs below it
    mirror.erase(identifier);
    for (const auto& [id, item] : Mirror(mirror)) if (item.parent == identifier) remove(mirror, id);
}
int main(int, char** arguments) {
    Client host;
    const std::string container = arguments[1];
    std::mutex mutex;
    std::condition_variable woken;
    bool isDue = true;
    const Watch watch = host.watch(container, [&] { std::lock_guard lock(mutex); isDue = true; woken.notify_one(); });
    Mirror mirror;
    Bytes anchor;
    for (;;) try {
        { std::unique_lock lock(mutex); woken.wait(lock, [&] { return isDue; }); isDue = false; }
        // The anchor comes before the listing, so that nothing falls in between.
        if (anchor.empty()) mirror.clear(), anchor = host.anchor(container), add(host, mirror, container);
        for (bool isMoreComing = true; isMoreComing;) {
            const Changes news = host.changes(container, anchor);
            for (const Change& change : news.changes)
                if (change.item) mirror[change.identifier] = *change.item; else remove(mirror, change.identifier);
            anchor = news.anchor, isMoreComing = news.moreComing;
        }
        for (const auto& [id, item] : mirror) std::cout << id << ' ' << item.path << '\n';
        std::cout << mirror.size() << " items" << std::endl;
    } catch (const Error& error) { if (error.kind() != Error::Kind::anchorExpired) throw; anchor.clear(), isDue = true; }
}
