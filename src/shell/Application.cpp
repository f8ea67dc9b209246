#include "shell/Application.h"

#include "common/Localization.h"
#include "common/SerialQueue.h"
#include "common/UserResources.h"
#include "settings/Settings.h"
#include "shell/MainWindow.h"

#include <QApplication>
#include <QIcon>
#include <QMessageBox>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace brim::shell {

std::vector<std::string> filesToOpen(const std::vector<std::string>& arguments) {
    std::vector<std::string> files;
    for (std::size_t i = 1; i < arguments.size(); ++i) {
        if (arguments[i] == "--support-dir") {
            ++i;
            continue;
        }
        if (arguments[i].starts_with("--") || arguments[i].empty()) continue;
        files.push_back(arguments[i]);
    }
    return files;
}

int runApplication(const std::vector<std::string>& arguments) {
    const auto isSet = [](const char* name) {
        const char* value = std::getenv(name);
        return value != nullptr && *value != '\0';
    };
    if (!isSet("DISPLAY") && !isSet("WAYLAND_DISPLAY") && !isSet("QT_QPA_PLATFORM")) {
        std::fputs(L("brim: there is no display to open a window on (neither DISPLAY nor WAYLAND_DISPLAY is set); "
                     "brim --help lists the terminal commands.\n")
                       .c_str(),
                   stderr);
        return 1;
    }
    // QApplication keeps references to these for its whole life.
    std::vector<std::string> storage(arguments.begin(), arguments.begin() + (arguments.empty() ? 0 : 1));
    if (storage.empty()) storage.emplace_back("Brim");
    std::vector<char*> pointers;
    for (std::string& argument : storage) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    int count = static_cast<int>(storage.size());
    QApplication application(count, pointers.data());
    QApplication::setApplicationName(QStringLiteral("Brim"));
    QApplication::setDesktopFileName(QStringLiteral("brim"));
    QApplication::setWindowIcon(QIcon::fromTheme(QStringLiteral("brim")));
    MainQueue::install([](std::function<void()> work) {
        QMetaObject::invokeMethod(qApp, std::move(work), Qt::QueuedConnection);
    });
    try {
        UserResources::prepare();
    } catch (const std::exception& error) {
        std::fputs(("brim: " + std::string(error.what()) + "\n").c_str(), stderr);
    }

    MainWindow window;
    const auto files = filesToOpen(arguments);
    for (const std::string& file : files) window.openFile(std::filesystem::absolute(file));
    if (files.empty()) window.newDocument();
    window.show();
    // A settings file that could not be read has been set aside and the defaults stand: say so.
    if (const auto problem = Settings::shared().problem()) {
        QMessageBox::warning(&window, QStringLiteral("Brim"), QString::fromStdString(*problem));
    }
    const int status = QApplication::exec();
    MainQueue::install(nullptr);
    return status;
}

} // namespace brim::shell
