#pragma once

/// What a program does first, before it opens anything, so that its surroundings cannot end it or get into
/// its files: standard streams that the caller closed, and the signals of a closed pipe and of a file that
/// may not grow. Writing then fails with an error that can be told.
void prepareProcess();
