#pragma once

namespace tarnwell::render {

/// Limits memory, time, core dumps and files of this process for good, and sees to it that it ends soon, whoever waits
/// for it. False where a limit cannot be set.
bool limitResources();

/// From now on this process can compute, read and write what it has open, and end; every other system call fails
/// (EPERM). All descriptors but the standard ones are closed. There is no way back. False where the kernel refuses.
bool confine();

}  // namespace tarnwell::render
