#pragma once

namespace vantor::ioc::internal
{

// The default patterns of the tactic tags (Perl-compatible, anchored). They
// are data as policy authors wrote them and are kept byte for byte, oddities
// included (the character class "[ba|z|k|da]sh", the unescaped "." before
// "bash_history", the shared "g.*" after cut log names): tidying one would
// change what a default policy detects.
struct TagPatterns
{
    static const char* const kCredentialAccessPath;
    static const char* const kCredentialAccessProcess;
    // Matched against each command-line argument: a shell started with an
    // alternative start-up file.
    static const char* const kExecutionArgument;
    static const char* const kExecutionPath;
    static const char* const kExecutionProcess;
    static const char* const kExfiltrationProcess;
    static const char* const kPersistencePath;
    static const char* const kPrivilegeEscalationPath;
};

} // namespace vantor::ioc::internal
