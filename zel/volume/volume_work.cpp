#include "zel/volume/volume_work.h"

#include <stdexcept>
#include <string>

#include "zel/batch/hook_walk.h"

namespace zel::detail {

void VolumeWork::callHook(std::function<void()> const& hook) {
    HookWalk::Scope const ownWalk;
    hook();
}

void VolumeWork::stopIfAsked() {
    m_watch.goesOn();
    m_watch.throwIfStopped();
}

void VolumeWork::checkComplete() const {
    m_watch.throwIfStopped();
    if (!m_watch.isComplete())
        throw std::runtime_error(std::string(m_caller) + ": a node of the field cancelled " +
                                 "the tasks that evaluated it");
}

}  // namespace zel::detail
