/*
 * ardent-agent starter rule library for web shells.
 *
 * Tag scheme (the agent reads the first tag that it knows):
 *   certain    the file is a web shell beyond reasonable doubt; the agent
 *              reports it as a detection event. Always the first tag.
 *   extra_php, extra_jsp
 *              the language family, after "certain" or "suspicious".
 *   suspicious obfuscation or a dangerous call that ordinary code also makes
 *              now and then; the agent keeps the file for a second look
 *              (data/upload/) instead of raising an event. Rules without
 *              any tag are treated the same way.
 *
 * The agent stops at the first rule that matches a file, in the order of
 * this file: certain rules come first so that a shell that is also
 * obfuscated is reported, not merely kept.
 *
 * The patterns are written for this project. Keep each one specific enough
 * that it does not fire on common frameworks (WordPress, Drupal, Laravel,
 * Spring, ASP.NET MVC); test new rules on a clean web root first.
 */

/* ------------------------------------------------------------ PHP, certain */

rule php_eval_of_request_input : certain extra_php
{
    meta:
        description = "PHP evaluates code taken straight from the request"
    strings:
        $eval = /\beval\s*\(\s*(base64_decode\s*\(\s*|gzinflate\s*\(\s*|str_rot13\s*\(\s*|stripslashes\s*\(\s*){0,3}\$_(POST|GET|REQUEST|COOKIE|SERVER)\s*\[/ nocase
    condition:
        $eval
}

rule php_assert_of_request_input : certain extra_php
{
    meta:
        description = "assert() used as eval on request input"
    strings:
        $assert = /\bassert\s*\(\s*(base64_decode\s*\(\s*|stripslashes\s*\(\s*){0,2}\$_(POST|GET|REQUEST|COOKIE)\s*\[/ nocase
    condition:
        $assert
}

rule php_command_from_request_input : certain extra_php
{
    meta:
        description = "an operating-system command taken straight from the request"
    strings:
        $cmd = /\b(system|passthru|shell_exec|exec|popen|proc_open|pcntl_exec)\s*\(\s*(base64_decode\s*\(\s*|stripslashes\s*\(\s*){0,2}\$_(POST|GET|REQUEST|COOKIE)\s*\[/ nocase
        $backtick = /`\s*\$_(POST|GET|REQUEST|COOKIE)\s*\[[^\]]{1,40}\]\s*`/
    condition:
        any of them
}

rule php_request_as_function : certain extra_php
{
    meta:
        description = "a function whose name and argument both come from the request"
    strings:
        $call = /\$_(POST|GET|REQUEST|COOKIE)\s*\[[^\]]{1,40}\]\s*\(\s*\$_(POST|GET|REQUEST|COOKIE)\s*\[/
        $create = /\bcreate_function\s*\([^;]{0,80}\$_(POST|GET|REQUEST|COOKIE)\s*\[/ nocase
        $preg = /\bpreg_replace\s*\(\s*["'][^"']{1,80}\/[a-df-z]*e[a-z]*["']\s*,\s*\$_(POST|GET|REQUEST|COOKIE)\s*\[/ nocase
    condition:
        any of them
}

rule php_known_shell_banner : certain extra_php
{
    meta:
        description = "names that widespread PHP web shells print about themselves"
    strings:
        $c99 = "c99shell" nocase
        $r57 = "r57shell" nocase
        $b374k = "b374k" nocase
        $wso = /<title>\s*WSO\s*[0-9.]+/ nocase
        $filesman = "$default_action = 'FilesMan'"
    condition:
        any of them
}

/* ------------------------------------------------------------ JSP, certain */

rule jsp_exec_of_request_parameter : certain extra_jsp
{
    meta:
        description = "JSP runs a command taken straight from a request parameter"
    strings:
        $runtime = /Runtime\s*\.\s*getRuntime\s*\(\s*\)\s*\.\s*exec\s*\(\s*request\s*\.\s*getParameter\s*\(/
        $builder = /new\s+ProcessBuilder\s*\([^;]{0,120}request\s*\.\s*getParameter\s*\(/
    condition:
        any of them
}

rule jsp_class_from_request_body : certain extra_jsp
{
    meta:
        description = "JSP defines a class from bytes sent in the request (memory shell loaders)"
    strings:
        $define = "defineClass" fullword
        $input = /request\s*\.\s*(getReader|getInputStream|getParameter)\s*\(/
        $decode = /(Base64\s*\.\s*getDecoder|BASE64Decoder|decodeBuffer|Cipher\s*\.\s*getInstance)/
        $loader = "ClassLoader"
    condition:
        all of them
}

/* -------------------------------------------------------- ASP/ASPX, certain */

rule aspx_eval_of_request : certain
{
    meta:
        description = "ASP.NET (JScript) evaluates a request value"
    strings:
        $eval = /\beval\s*\(\s*Request\s*(\.\s*(Item|Form|QueryString)\s*)?\[/ nocase
    condition:
        $eval
}

rule asp_execute_of_request : certain
{
    meta:
        description = "classic ASP executes or evaluates a request value"
    strings:
        $exec = /\b(Execute|ExecuteGlobal|Eval)\s*\(?\s*Request\s*(\.\s*(Item|Form|QueryString)\s*)?\(/ nocase
    condition:
        $exec
}

rule aspx_process_of_request : certain
{
    meta:
        description = "ASP.NET starts a process from a request value"
    strings:
        $start = /Process\s*\.\s*Start\s*\([^;]{0,120}Request\s*(\.\s*(Item|Form|QueryString|Params)\s*)?\[/ nocase
        $info = /(FileName|Arguments)\s*=\s*Request\s*(\.\s*(Item|Form|QueryString|Params)\s*)?\[/ nocase
    condition:
        any of them
}

/* --------------------------------------- suspicious: worth a second look */

rule php_long_base64_payload : suspicious extra_php
{
    meta:
        description = "base64_decode of a long literal blob"
    strings:
        $blob = /base64_decode\s*\(\s*["'][A-Za-z0-9+\/=\r\n]{400}/
    condition:
        $blob
}

rule php_compressed_payload : suspicious extra_php
{
    meta:
        description = "code unpacked from a compressed, encoded blob"
    strings:
        $unpack = /\b(gzinflate|gzuncompress|gzdecode)\s*\(\s*(base64_decode|str_rot13|strrev)\s*\(/ nocase
    condition:
        $unpack
}

rule php_rot13_chain : suspicious extra_php
{
    meta:
        description = "str_rot13 chained with another decoder"
    strings:
        $chain = /\bstr_rot13\s*\(\s*(str_rot13|base64_decode|gzinflate|strrev|hex2bin)\s*\(/ nocase
        $inner = /\b(base64_decode|gzinflate|strrev)\s*\(\s*str_rot13\s*\(/ nocase
    condition:
        any of them
}

rule php_shell_call_with_variable : suspicious extra_php
{
    meta:
        description = "system/passthru/shell_exec/popen/proc_open on a variable"
    strings:
        $call = /\b(system|passthru|shell_exec|popen|proc_open)\s*\(\s*\$[A-Za-z_]/ nocase
    condition:
        $call
}

rule php_dynamic_code : suspicious extra_php
{
    meta:
        description = "create_function, preg_replace /e, or eval of a variable"
    strings:
        $create = /\bcreate_function\s*\(/ nocase
        $preg = /\bpreg_replace\s*\(\s*["'][^"']{1,80}\/[a-df-z]*e[a-z]*["']/ nocase
        $eval = /\beval\s*\(\s*\$[A-Za-z_]/ nocase
    condition:
        any of them
}

rule php_char_code_chain : suspicious extra_php
{
    meta:
        description = "a name built from a long chain of chr() calls"
    strings:
        $chr = /(chr\s*\(\s*[0-9]{2,3}\s*\)\s*\.\s*){8}/ nocase
    condition:
        $chr
}

rule jsp_runtime_exec : suspicious extra_jsp
{
    meta:
        description = "JSP runs an operating-system command"
    strings:
        $runtime = /Runtime\s*\.\s*getRuntime\s*\(\s*\)\s*\.\s*exec\s*\(/
        $builder = /new\s+ProcessBuilder\s*\(/
    condition:
        any of them
}

rule asp_wscript_shell : suspicious
{
    meta:
        description = "ASP drives WScript.Shell or cmd.exe"
    strings:
        $wscript = "WScript.Shell" nocase
        $cmd = /cmd(\.exe)?\s*\/c/ nocase
    condition:
        any of them
}
