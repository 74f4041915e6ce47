#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <nlohmann/json.hpp>

#include "cli/output/ItemJson.h"
#include "cli/output/OutputFile.h"
#include "cli/output/Text.h"
#include "cli/verbs/ItemArgument.h"
#include "cli/verbs/ItemBatch.h"
#include "cli/verbs/Verb.h"
#include "platform/icons/IconRenderer.h"
#include "session/OnlyOne.h"

namespace tarnwell::cli {
namespace {

using session::ItemIdentifier;

constexpr const char* kCannot = "cannot make a thumbnail of";

bool isFolder(const std::string& path) {
    struct stat status{};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

/// The side in the header of a sound PNG.
unsigned sideOf(const Bytes& png) { return png.size() < 20 ? 0 : static_cast<unsigned>(png[18] << 8 | png[19]); }

class ThumbnailVerb : public Verb {
public:
    const char* name() const override { return "thumbnail"; }
    const char* summary() const override { return "Write the icons of app libraries as PNG files"; }
    const char* example() const override {
        return "tarnwell thumbnail '#org.example.Notes' -o notes.png     as large as fits this device's screen\n"
               "tarnwell thumbnail '#org.example.Notes' -o - --size 256 | feh -";
    }
    void declare(CLI::App& command) override {
        command.add_option("ITEM", items_, std::string("App libraries: ") + kItemHelp)->required();
        command
            .add_option("-o,--output", output_,
                        "The file to write; of several items, or in a folder that is there, one file each, named after "
                        "the application; - for standard output")
            ->type_name("FILE|DIR")
            ->required();
        sizeOption_ = command.add_option("--size", size_, "Pixels a side; else what is meant for this device's screen")
                          ->type_name("N")
                          ->check(CLI::Range(icons::kMinPictureSide, icons::kMaxPictureSide));
        command.add_flag("--force", force_, "Replace files that are there");
    }

    Outcome run(Invocation& invocation) override {
        const bool toStandardOutput = output_ == "-";
        const bool intoFolder = !toStandardOutput && isFolder(output_);
        if (auto misuse = misuseOf(invocation, toStandardOutput, intoFolder)) return std::unexpected(*misuse);
        auto session = invocation.session();
        if (!session) return std::unexpected(session.error());
        ItemBatch batch(invocation, kCannot, "written", items_.size());
        for (const std::string& text : items_) {
            auto identifier = resolveItem(invocation, kCannot, text);
            auto png = identifier ? thumbnailOf(invocation, **session, text, *identifier)
                                  : std::expected<Bytes, Failure>(std::unexpected(identifier.error()));
            if (!png) {
                batch.addFailure(text, png.error());
            } else if (toStandardOutput) {
                batch.addRaw(textOf(*png));
            } else {
                write(invocation, batch, text, *identifier, *png,
                      intoFolder ? output_ + "/" + identifier->substr(1) + ".png" : output_);
            }
        }
        return batch.outcome();
    }

private:
    std::optional<Failure> misuseOf(Invocation& invocation, bool toStandardOutput, bool intoFolder) const {
        const auto misuse = [](const char* message) { return Failure{ExitStatus::usage, message}; };
        if (output_.empty()) return misuse("-o needs a file or a folder");
        if (output_.ends_with('/') && !intoFolder) return misuse("-o names a folder that is not there");
        if (items_.size() > 1 && !intoFolder) {
            return misuse("several thumbnails need a folder that is there; name it with -o");
        }
        if (!toStandardOutput) return std::nullopt;
        if (invocation.json()) return misuse("with --json the standard output is taken; name a file with -o");
        if (::isatty(STDOUT_FILENO) == 1) return misuse("a picture is nothing for a terminal; name a file with -o");
        return std::nullopt;
    }

    std::expected<Bytes, Failure> thumbnailOf(Invocation& invocation, session::Session& session,
                                              const std::string& text, const ItemIdentifier& identifier) const {
        const auto none = [&](const std::string& reason) {
            return std::unexpected(
                Failure{ExitStatus::failed, std::string(kCannot) + " \"" + toDisplay(text) + "\": " + reason});
        };
        const bool isLibrary = identifier.starts_with('#');
        if (isLibrary || identifier.starts_with("did=") || identifier.starts_with("fid=")) {
            if (const auto item = session::onlyOne(session.items({identifier})); !item) {
                return std::unexpected(failureOf(kCannot, text, item.error()));
            }
        }
        if (!isLibrary) return none("only app libraries have one; \"tarnwell apps\" lists them");
        auto png = session::onlyOne(session.thumbnails({identifier}, sizeOption_->count() > 0 ? size_ : 0));
        if (png) return std::move(*png);
        // They say it in the program's own words.
        (void)invocation.heldLines();
        return none("its icon cannot be drawn; \"tarnwell -v thumbnail\" says why");
    }

    void write(Invocation& invocation, ItemBatch& batch, const std::string& text, const ItemIdentifier& identifier,
               const Bytes& png, const std::string& path) const {
        if (auto written = writeOutputFile(path, png, force_ ? IfThere::replace : IfThere::refuse); !written) {
            const bool isThere = written.error().is(ErrorDomain::posix, EEXIST);
            batch.addFailure(text, Failure{ExitStatus::failed,
                                           "cannot write \"" + toDisplay(path) + "\": " +
                                               (isThere ? "it is there already; --force replaces it"
                                                        : toDisplay(describe(written.error()))),
                                           written.error()});
            return;
        }
        const unsigned side = sideOf(png);
        batch.addLine(invocation.json() ? jsonLine({{"item", toUtf8(identifier)},
                                                    {"file", toUtf8(path)},
                                                    {"typeIdentifier", icons::kPngType},
                                                    {"width", side},
                                                    {"height", side},
                                                    {"size", png.size()}})
                                        : invocation.output().paint(Style::good, "written") + "  " +
                                              toDisplay(identifier) + "  " + toDisplay(path));
    }

    std::vector<std::string> items_;
    std::string output_;
    unsigned size_ = 0;
    CLI::Option* sizeOption_ = nullptr;
    bool force_ = false;
};

}  // namespace

std::unique_ptr<Verb> makeThumbnailVerb() { return std::make_unique<ThumbnailVerb>(); }

}  // namespace tarnwell::cli
