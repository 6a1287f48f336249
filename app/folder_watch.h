// Folder change notifications waited on by a thread of their own, so that a frame tests each one
// by reading a flag instead of asking the system (a round trip to its server under Wine, a large
// part of a frame when the server is busy with a program of two thousand threads). The thread
// wakes the user interface when one fires, so a file saved elsewhere is reloaded in the next frame
// even while the window sleeps. Windows only; the user-interface thread calls everything here.
#pragma once

#include "base/types.h"

enum : u32 { kFolderWatchCapacity = 63 };  // one wait of the system, less the thread's own event

// Starts the thread; wake(user) is called on it when a notification fires. False when the thread or
// its event could not be made: then nothing is watched here and FolderWatchAdd says so.
bool FolderWatchStart(void (*wake)(void *), void *user);
void FolderWatchStop();
// Hands a change-notification handle to the thread. False when it is full (or not started): the
// caller tests that handle itself.
bool FolderWatchAdd(intptr_t handle);
// Takes a handle back; when this returns the thread no longer waits on it, so it may be closed.
void FolderWatchRemove(intptr_t handle);
// The handles that fired since the last call (at most capacity of them); each is out of the
// thread's wait until FolderWatchRearm, which the caller calls after FindNextChangeNotification.
u32 FolderWatchTakeFired(intptr_t *out, u32 capacity);
void FolderWatchRearm(intptr_t handle);
