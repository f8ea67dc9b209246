// The real Brim executable in a real X server: Xvfb is started here on a free display, keys are typed
// through the XTEST extension (libXtst, loaded at run time), and the window's screen is grabbed into the
// build folder as brim-window.png for a person to look at.

#include "support/TemporaryFolder.h"

#include <QGuiApplication>
#include <QImage>
#include <QPixmap>
#include <QScreen>

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace brim {
namespace {

using brim::testing::readFile;
using brim::testing::TemporaryFolder;

// Waits for `condition` with a deadline, looking every 20 ms.
bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds deadline) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (std::chrono::steady_clock::now() < end) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return condition();
}

pid_t spawn(const std::vector<std::string>& arguments, const std::vector<std::string>& environment) {
    std::vector<char*> argv;
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    std::vector<std::string> storage;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string item = *entry;
        const bool replaced = std::any_of(environment.begin(), environment.end(), [&](const std::string& mine) {
            return item.substr(0, item.find('=') + 1) == mine.substr(0, mine.find('=') + 1);
        });
        if (!replaced && !item.starts_with("QT_QPA_PLATFORM=") && !item.starts_with("WAYLAND_DISPLAY=")) {
            storage.push_back(item);
        }
    }
    storage.insert(storage.end(), environment.begin(), environment.end());
    std::vector<char*> envp;
    for (const auto& item : storage) envp.push_back(const_cast<char*>(item.c_str()));
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data()) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

bool hasExited(pid_t pid) {
    int status = 0;
    return waitpid(pid, &status, WNOHANG) == pid;
}

void stop(pid_t pid) {
    if (pid <= 0 || hasExited(pid)) return;
    kill(pid, SIGTERM);
    if (!waitFor([&] { return hasExited(pid); }, std::chrono::seconds(5))) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}

// The few Xlib and XTEST calls the test needs, looked up at run time: only the libraries are installed,
// not their headers.
struct X11 {
    using Display = void;
    using Window = unsigned long;
    void* xlib = dlopen("libX11.so.6", RTLD_NOW);
    void* xtst = dlopen("libXtst.so.6", RTLD_NOW);

    template <typename F>
    F find(void* library, const char* name) const {
        return library == nullptr ? nullptr : reinterpret_cast<F>(dlsym(library, name));
    }
    Display* (*openDisplay)(const char*) = find<Display* (*)(const char*)>(xlib, "XOpenDisplay");
    int (*closeDisplay)(Display*) = find<int (*)(Display*)>(xlib, "XCloseDisplay");
    Window (*rootWindow)(Display*) = find<Window (*)(Display*)>(xlib, "XDefaultRootWindow");
    int (*queryTree)(Display*, Window, Window*, Window*, Window**, unsigned*) =
        find<int (*)(Display*, Window, Window*, Window*, Window**, unsigned*)>(xlib, "XQueryTree");
    int (*free)(void*) = find<int (*)(void*)>(xlib, "XFree");
    unsigned long (*internAtom)(Display*, const char*, int) =
        find<unsigned long (*)(Display*, const char*, int)>(xlib, "XInternAtom");
    int (*getProperty)(Display*, Window, unsigned long, long, long, int, unsigned long, unsigned long*, int*,
                       unsigned long*, unsigned long*, unsigned char**) =
        find<int (*)(Display*, Window, unsigned long, long, long, int, unsigned long, unsigned long*, int*,
                     unsigned long*, unsigned long*, unsigned char**)>(xlib, "XGetWindowProperty");
    int (*getGeometry)(Display*, Window, Window*, int*, int*, unsigned*, unsigned*, unsigned*, unsigned*) =
        find<int (*)(Display*, Window, Window*, int*, int*, unsigned*, unsigned*, unsigned*, unsigned*)>(
            xlib, "XGetGeometry");
    unsigned long (*stringToKeysym)(const char*) = find<unsigned long (*)(const char*)>(xlib, "XStringToKeysym");
    unsigned char (*keysymToKeycode)(Display*, unsigned long) =
        find<unsigned char (*)(Display*, unsigned long)>(xlib, "XKeysymToKeycode");
    int (*flush)(Display*) = find<int (*)(Display*)>(xlib, "XFlush");
    int (*fakeKey)(Display*, unsigned, int, unsigned long) =
        find<int (*)(Display*, unsigned, int, unsigned long)>(xtst, "XTestFakeKeyEvent");
    int (*fakeButton)(Display*, unsigned, int, unsigned long) =
        find<int (*)(Display*, unsigned, int, unsigned long)>(xtst, "XTestFakeButtonEvent");
    int (*fakeMotion)(Display*, int, int, int, unsigned long) =
        find<int (*)(Display*, int, int, int, unsigned long)>(xtst, "XTestFakeMotionEvent");

    [[nodiscard]] bool usable() const {
        return openDisplay && queryTree && getProperty && getGeometry && keysymToKeycode && fakeKey && fakeButton &&
               fakeMotion && internAtom && stringToKeysym && flush && rootWindow && free && closeDisplay;
    }

    // A top-level window whose title is `title`.
    std::optional<Window> windowTitled(Display* display, const std::string& title) const {
        Window root = 0, parent = 0, *children = nullptr;
        unsigned count = 0;
        if (queryTree(display, rootWindow(display), &root, &parent, &children, &count) == 0) return std::nullopt;
        std::optional<Window> found;
        const unsigned long name = internAtom(display, "_NET_WM_NAME", 0);
        for (unsigned i = 0; i < count && !found; ++i) {
            unsigned long type = 0, items = 0, after = 0;
            int format = 0;
            unsigned char* value = nullptr;
            if (getProperty(display, children[i], name, 0, 1024, 0, 0, &type, &format, &items, &after, &value) == 0 &&
                value != nullptr) {
                if (std::string(reinterpret_cast<char*>(value), items) == title) found = children[i];
                free(value);
            }
        }
        if (children != nullptr) free(children);
        return found;
    }

    void key(Display* display, const char* name, bool press) const {
        fakeKey(display, keysymToKeycode(display, stringToKeysym(name)), press ? 1 : 0, 0);
    }
    void tap(Display* display, const char* name, const char* modifier = nullptr) const {
        if (modifier != nullptr) key(display, modifier, true);
        key(display, name, true);
        key(display, name, false);
        if (modifier != nullptr) key(display, modifier, false);
        flush(display);
    }
};

TEST(BrimWindow, typesIntoARealWindowAndSavesTheBytes) {
    if (access("/usr/bin/Xvfb", X_OK) != 0) GTEST_SKIP() << "Xvfb is not installed (scripts/install-deps installs it)";
    const X11 x11;
    if (!x11.usable()) GTEST_SKIP() << "libX11 or libXtst could not be loaded to type into the window";

    int number = 97;
    for (; number < 160; ++number) {
        if (!std::filesystem::exists("/tmp/.X11-unix/X" + std::to_string(number)) &&
            !std::filesystem::exists("/tmp/.X" + std::to_string(number) + "-lock")) {
            break;
        }
    }
    const std::string display = ":" + std::to_string(number);
    const pid_t server = spawn({"/usr/bin/Xvfb", display, "-screen", "0", "1280x800x24", "-nolisten", "tcp"}, {});
    ASSERT_GT(server, 0);
    const auto stopServer = std::shared_ptr<void>(nullptr, [server](void*) { stop(server); });
    ASSERT_TRUE(waitFor([&] { return std::filesystem::exists("/tmp/.X11-unix/X" + std::to_string(number)); },
                        std::chrono::seconds(15)));
    X11::Display* connection = nullptr;
    ASSERT_TRUE(waitFor([&] { return (connection = x11.openDisplay(display.c_str())) != nullptr; },
                        std::chrono::seconds(15)));
    const auto closeConnection = std::shared_ptr<void>(nullptr, [&](void*) { x11.closeDisplay(connection); });

    const TemporaryFolder folder;
    std::string original;
    for (int i = 1; i <= 2'000; ++i) original += "line " + std::to_string(i) + " of a generated file\n";
    const auto path = folder.write("hello.txt", original);
    const pid_t brim = spawn({BRIM_EXECUTABLE, path.string(), "--support-dir", (folder / "support").string()},
                             {"DISPLAY=" + display, "XDG_CONFIG_HOME=" + (folder / "config").string(),
                              "XDG_DATA_HOME=" + (folder / "data").string()});
    ASSERT_GT(brim, 0);
    const auto stopBrim = std::shared_ptr<void>(nullptr, [brim](void*) { stop(brim); });

    // The title names the file once it is open.
    std::optional<X11::Window> window;
    ASSERT_TRUE(waitFor([&] { return (window = x11.windowTitled(connection, "hello.txt — Brim")).has_value(); },
                        std::chrono::seconds(30)));
    X11::Window root = 0;
    int left = 0, top = 0;
    unsigned width = 0, height = 0, border = 0, depth = 0;
    x11.getGeometry(connection, *window, &root, &left, &top, &width, &height, &border, &depth);
    // Click into the text, go to the top and type a line; then save. A window that has its title may
    // not take keys yet (it is still being mapped): keys sent then are lost whole. The title says when
    // the text was changed ("hello.txt* — Brim"), so the line is typed again only while it still says
    // nothing changed, and Ctrl+S is sent again only while the file is still the old one.
    const std::string expected = "hi there\n" + original;
    const auto titled = [&](const char* title) { return x11.windowTitled(connection, title).has_value(); };
    bool typed = false;
    for (int attempt = 0; attempt < 4 && !typed; ++attempt) {
        x11.fakeMotion(connection, -1, left + static_cast<int>(width) / 2, top + static_cast<int>(height) / 2, 0);
        x11.fakeButton(connection, 1, 1, 0);
        x11.fakeButton(connection, 1, 0, 0);
        x11.tap(connection, "Home", "Control_L");
        for (const char* key : {"h", "i", "space", "t", "h", "e", "r", "e", "Return"}) x11.tap(connection, key);
        typed = waitFor([&] { return titled("hello.txt* — Brim"); }, std::chrono::seconds(8));
    }
    ASSERT_TRUE(typed) << "the keys never reached the window";
    bool saved = false;
    for (int attempt = 0; attempt < 4 && !saved; ++attempt) {
        x11.tap(connection, "s", "Control_L");
        saved = waitFor([&] { return readFile(path) != original; }, std::chrono::seconds(8));
    }
    EXPECT_TRUE(saved) << "Ctrl+S never saved the file";
    EXPECT_TRUE(waitFor([&] { return readFile(path) == expected; }, std::chrono::seconds(10)))
        << "the file holds: " << readFile(path).substr(0, 40);

    // A picture of the window for people, grabbed from the X server itself.
    setenv("DISPLAY", display.c_str(), 1);
    setenv("QT_QPA_PLATFORM", "xcb", 1);
    int argc = 1;
    char name[] = "brim_shell_window_tests";
    char* argv[] = {name, nullptr};
    {
        QGuiApplication application(argc, argv);
        const QPixmap picture = QGuiApplication::primaryScreen()->grabWindow(0);
        const std::string shot = std::string(BRIM_SCREENSHOT_DIR) + "/brim-window.png";
        EXPECT_TRUE(picture.save(QString::fromStdString(shot)));
        // Something was drawn: the picture is not one flat colour.
        const QImage image = picture.toImage();
        EXPECT_NE(image.pixel(left + 10, top + 60), image.pixel(left + static_cast<int>(width) / 2, top + 60 + 40));
    }

    // Ctrl+Q quits without a question: nothing is unsaved.
    x11.tap(connection, "q", "Control_L");
    EXPECT_TRUE(waitFor([&] { return hasExited(brim); }, std::chrono::seconds(15)));
}

} // namespace
} // namespace brim
