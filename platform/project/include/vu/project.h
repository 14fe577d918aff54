// The project library in one include: projects, behavior libraries and packages.
//
//   #include <vu/project.h>
//   vu::project::BehaviorLibraryProject library("/home/robot/.tuqvu/behaviors");
//   for (const std::string& path : library.behaviorPaths("", true)) { ... }
#pragma once

#include <vu/project/behaviorlibraryproject.h>
#include <vu/project/library.h>
#include <vu/project/package.h>
#include <vu/project/project.h>
