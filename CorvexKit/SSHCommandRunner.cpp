#include "CorvexKit/SSHCommandRunner.h"

#include "CorvexKit/ProcessRun.h"
#include "CorvexKit/SSHTarget.h"

namespace corvex {

SSHCommandRunner::SSHCommandRunner(std::string target, std::vector<std::string> options, std::string sshPath)
    : target_(std::move(target)), options_(std::move(options)), sshPath_(std::move(sshPath)) {}

RemoteCommandResult SSHCommandRunner::run(const std::string& command, const std::optional<std::string>& input) {
    SSHTarget::check(target_);
    ProcessRequest request;
    request.program = sshPath_;
    request.arguments = options_;
    request.arguments.push_back("--");
    request.arguments.push_back(target_);
    request.arguments.push_back(command);
    request.input = input;
    ProcessResult result;
    try {
        result = runProcess(request);
    } catch (const std::runtime_error& error) {
        throw RemoteFailure(error.what());
    }
    return {result.status, std::move(result.out), std::move(result.err)};
}

} // namespace corvex
