// zelctl encode, decode and verify: messages in files, without a service.
#include "tools/message/element_tree.hpp"
#include "tools/text/safe_text.hpp"
#include "tools/zelctl/output.hpp"
#include "tools/zelctl/request.hpp"

#include <fmt/core.h>

#include <memory>
#include <unistd.h>

namespace zelctl {
namespace {

struct EncodeArguments {
    RequestArguments request;
    std::string output = "-";
};

int run_encode(const Options &options, const EncodeArguments &arguments)
{
    const RequestArguments &request = arguments.request;
    const tools::Message message = request.kind.empty()
                                       ? message_from_json(tools::read_json_file(request.file), options.app)
                                       : make_request(request, options.app);
    if (arguments.output == "-" && isatty(STDOUT_FILENO) != 0)
        throw CLI::ValidationError("--output", "a message is bytes, which no terminal shows; give a file, or a pipe");
    write_file(arguments.output, encode_message(message));
    return exit_ok;
}

int run_decode(const Options &options, const std::string &path)
{
    const std::string bytes = tools::read_file(path);
    // The tree shows the elements even when they are no message.
    if (!options.json)
        fmt::print("{}", show_element_tree(tools::list_elements(bytes)));
    const tools::Message message = tools::decode_message(bytes, path);
    if (options.json)
        print_json(message_to_json(message), 2);
    return exit_ok;
}

struct VerifyArguments {
    std::string path;
    bool is_strict = false;
};

int run_verify(const Options &options, const VerifyArguments &arguments)
{
    const std::string bytes = tools::read_file(arguments.path);
    const zel_verify_report_t report = tools::verify_message(bytes, arguments.path, arguments.is_strict);
    if (options.json)
        print_json({{"file", arguments.path},
                    {"accepted", true},
                    {"text", zel_verify_rule_text(report.rule)},
                    {"unknown_elements", report.unknown_elements}});
    else
        fmt::print("{}: {}, {} unknown elements\n", tools::safe_text(arguments.path), zel_verify_rule_text(report.rule),
                   report.unknown_elements);
    return exit_ok;
}

} // namespace

void add_codec_commands(const CommandLine &line)
{
    const auto encode_arguments = std::make_shared<EncodeArguments>();
    CLI::App *const encode = line.app.add_subcommand("encode", "Write the message that would be sent to a file");
    encode->add_option("FILE", encode_arguments->request.file,
                       "A message as JSON, as decode --json shows it, or with --kind an object; - is standard input");
    encode->add_option("-o,--output", encode_arguments->output, "The message file; - is standard output")
        ->capture_default_str();
    CLI::Option *const kind = encode->add_option("--kind", encode_arguments->request.kind,
                                                 "FILE holds the object of a request of this kind (see send)");
    add_request_options(encode, encode_arguments->request);
    encode->get_option("--policy")->needs(kind);
    encode->get_option("--op")->needs(kind);
    when_given(line, encode, [&options = line.options, encode_arguments] {
        if (encode_arguments->request.kind.empty() && encode_arguments->request.file.empty())
            throw CLI::RequiredError("FILE");
        return run_encode(options, *encode_arguments);
    });

    const auto path = std::make_shared<std::string>();
    CLI::App *const decode =
        line.app.add_subcommand("decode", "Show a message file as a tree of elements, or with --json as JSON");
    decode->add_option("FILE", *path, "The message file; - is standard input")->required();
    when_given(line, decode, [&options = line.options, path] { return run_decode(options, *path); });

    const auto verify_arguments = std::make_shared<VerifyArguments>();
    CLI::App *const verify =
        line.app.add_subcommand("verify", "Say whether a service may trust the shape of a message file");
    verify->add_option("FILE", verify_arguments->path, "The message file; - is standard input")->required();
    verify->add_flag("--strict", verify_arguments->is_strict, "Refuse elements that newer peers may have added, too");
    when_given(line, verify,
               [&options = line.options, verify_arguments] { return run_verify(options, *verify_arguments); });
}

} // namespace zelctl
