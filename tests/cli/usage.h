// What the command prints when it is told nothing to do.
#pragma once

inline constexpr char kUsage[] =
    "Usage: nodelink (Version 25556)\n"
    "  -r, --report_info      Report HS version info to Veltrix\n"
    "  -n, --notify_logout    Notify user zomi is logged out\n"
    "  -q, --query_account    Query user account info\n"
    "  -c, --cache            Using cache when query_account\n"
    "  -l, --logout           Logout user account\n"
    "  -u, --update           Update crond job\n"
    "  -h, --help             Show help\n";
