#include "platform/operations/Announced.h"

#include <utility>

namespace tarnwell::operations {

using filesystem::OwnChanges;

Announced::~Announced() {
    for (const OwnChanges::Name& name : names_) changes_->forget(name);
}

void Announced::give(const filesystem::Status& folder, const std::string& name, const filesystem::Status& object) {
    add({folder.inode, name, object.inode, object.birth}, OwnChanges::Change::given);
}

void Announced::take(const filesystem::Status& folder, const std::string& name, const filesystem::Status& object) {
    add({folder.inode, name, object.inode, object.birth}, OwnChanges::Change::taken);
}

void Announced::add(OwnChanges::Name name, OwnChanges::Change change) {
    if (changes_ == nullptr) return;
    changes_->note(name, change);
    names_.push_back(std::move(name));
}

}  // namespace tarnwell::operations
