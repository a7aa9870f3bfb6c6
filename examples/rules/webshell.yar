/*
 * ardent-agent default rule library for web shells.
 *
 * Tiers. A rule tagged "certain" (always the first tag) describes something
 * an ordinary application never does: request input reaching code
 * evaluation or a command, a class loader fed from the request, the marks of
 * a known web-shell family. Its match is a detection event. Every other rule
 * describes obfuscation or a dangerous call that ordinary code also makes now
 * and then; its match keeps the file for a second look (data/upload/). Every
 * rule has a "description" and a "score" (0..100, how sure the match is) so
 * that a policy's content.certain_min_score can promote untagged rules.
 *
 * When several rules match, a certain one wins; among equals the first in
 * this file does. Certain rules come first all the same, so that the file
 * reads from the strongest evidence down.
 *
 * The rules run on the file as it is and on each layer the agent decodes
 * from it (base64, compression, rot13, reversal, escapes, chr() chains...);
 * layer_depth tells which. filetype comes from the file name, so the layers
 * of a PHP file are checked by the PHP rules.
 *
 * Rules name techniques and families, never single samples. Keep every
 * string anchored on a literal of four bytes or more: the library must scan
 * as fast as plain yara on a large tree.
 */

/* ------------------------------------------------------------------ PHP */

private rule is_php
{
    meta:
        description = "a PHP script: by its suffix, or an unknown suffix that opens with a PHP tag"
        score = 0
    condition:
        filetype == "PHP" or (filetype == "OTHER" and (uint32(0) == 0x68703f3c or uint32(0) == 0x3f3cbbef))
}

rule php_eval_of_request : certain extra_php
{
    meta:
        description = "PHP evaluates code that comes straight from the request"
        score = 100
    strings:
        // eval/assert whose argument starts with request input, possibly
        // wrapped in decoders or string functions
        $direct = /\b(eval|assert)\s*\(\s*(@?\s*[a-z_0-9]{2,24}\s*\(\s*|["']\?>["']\s*\.\s*){0,4}@?\s*(\$_(POST|GET|REQUEST|COOKIE|SERVER\s*\[\s*['"]HTTP_)|\$GLOBALS\s*\[\s*['"]_(POST|GET|REQUEST|COOKIE)|\$\{\s*['"]_(POST|GET|REQUEST|COOKIE)|\$HTTP_(POST|GET|COOKIE)_VARS)/ nocase
        $input = /\b(eval|assert|create_function)\s*\([^;]{0,60}(php:\/\/input|getallheaders\s*\(|apache_request_headers\s*\()/ nocase
        // the request body or an inline data: URL included as code
        $include_input = /\b(include|require)(_once)?\s*\(?\s*["'](php:\/\/input|data:\/\/text\/plain|data:text\/plain)/ nocase
        $create = /\bcreate_function\s*\([^;]{0,100}\$_(POST|GET|REQUEST|COOKIE)\b/ nocase
        $preg = /\b(preg_replace|preg_filter)\s*\(\s*["'][\/#|~!@%{(][^"']{0,80}[\/#|~!@%})][imsxuADSUXJ]{0,6}e[imsxuADSUXJ]{0,6}["']\s*,\s*(@?\s*[a-z_0-9]{2,24}\s*\(\s*){0,3}@?\s*\$_(POST|GET|REQUEST|COOKIE)/ nocase
        // "/.*/e": a pattern that hands the whole subject to eval
        $any_e = /["'][\/|#~!@%]\.\*[\/|#~!@%][imsxu]{0,3}e[imsxu]{0,3}["']/
        $request = /\$_(POST|GET|REQUEST|COOKIE)\s*\[/
        $preg_all = /\b(preg_replace|preg_filter)\s*\(\s*["'][\/|#~!@%]\(?\.\*\)?[\/|#~!@%][imsxu]{0,3}e[imsxu]{0,3}["']\s*,/ nocase
        // an /e pattern whose replacement is code
        $preg_code = /\b(preg_replace|preg_filter)\s*\(\s*["'][^"'\n]{1,60}[imsxuADSUXJ]{0,6}e[imsxuADSUXJ]{0,6}["']\s*,\s*["']@?(eval|assert|system|passthru|shell_exec|base64_decode|gzinflate|gzuncompress)\s*\(/ nocase
        // eval('$x=' . $_POST['x'] . ';'): request input spliced into code
        $splice = /\b(eval|assert)\s*\(\s*('([^'\n\\]|\\.){0,80}'|"([^"\n\\]|\\.){0,80}")\s*\.\s*(@?\s*[a-z_0-9]{2,24}\s*\(\s*){0,2}@?\s*\$_(POST|GET|REQUEST|COOKIE)\s*\[/ nocase
        $mbereg = /\bmb_eregi?_replace\s*\([^;]{0,120}\$_(POST|GET|REQUEST|COOKIE)[^;]{0,120}["']e["']/ nocase
    condition:
        is_php and (any of ($direct, $input, $include_input, $create, $preg, $mbereg, $preg_all, $preg_code, $splice) or ($any_e and $request))
}

rule php_command_of_request : certain extra_php
{
    meta:
        description = "PHP runs an operating-system command taken from the request"
        score = 100
    strings:
        $call = /[^\w>:$\\](system|passthru|shell_exec|exec|popen|proc_open|pcntl_exec)\s*\(\s*(@?\s*[a-z_0-9]{2,24}\s*\(\s*){0,3}(["'][^"'\n]{0,40}["']\s*\.\s*)?@?\s*(\$_(POST|GET|REQUEST|COOKIE|SERVER\s*\[\s*['"]HTTP_)|\$GLOBALS\s*\[\s*['"]_(POST|GET|REQUEST|COOKIE)|\$HTTP_(POST|GET)_VARS)/ nocase
        $quoted = /[^\w>:$\\](system|passthru|shell_exec|exec|popen|proc_open)\s*\(\s*"[^"\n]{0,40}\$_(POST|GET|REQUEST|COOKIE)\b/ nocase
        // backticks after an assignment or an output call; doc comments
        // that quote `$_POST['x']` have none of these before the backtick
        $backtick = /(=|echo|print|\(|\.|return)\s*`[^`\n]{0,60}\$_(POST|GET|REQUEST|COOKIE)\b[^`\n]{0,60}`/ nocase
        $com = /(WScript\.Shell|Shell\.Application)["'][^;]{0,200}\$_(POST|GET|REQUEST|COOKIE)/ nocase
        // a statement that is only a backtick command: `$_GET[c]`;
        $backtick_stmt = /(<\?php|<\?|;|\{)\s*`[^`\n]{0,60}\$_(POST|GET|REQUEST|COOKIE)\b[^`\n]{0,60}`\s*;/ nocase
    condition:
        is_php and any of them
}

rule php_request_names_the_function : certain extra_php
{
    meta:
        description = "PHP calls a function whose name comes from the request"
        score = 100
    strings:
        // $_GET['f']($_GET['a']); a comment such as "$_SERVER['HTTP_HOST'] (...)" is prose
        $request_call = /\$_(POST|GET|REQUEST|COOKIE|SERVER)\s*\[[^\]\n]{1,40}\](\(|\s+\(\s*@?\s*\$_)/
        $globals_call = /\$GLOBALS\s*\[\s*['"]_(POST|GET|REQUEST|COOKIE)['"]\s*\]\s*\[[^\]\n]{1,40}\]\s*\(/
        $first_arg = /\b(call_user_func|call_user_func_array|array_map|register_shutdown_function|register_tick_function|forward_static_call|forward_static_call_array|iterator_apply|ReflectionFunction)\s*\(\s*(@?\s*[a-z_0-9]{2,24}\s*\(\s*){0,2}@?\s*\$_(POST|GET|REQUEST|COOKIE)\b/ nocase
        $second_arg = /\b(array_filter|array_walk|array_walk_recursive|usort|uasort|uksort|array_reduce)\s*\([^;,()]{1,80},\s*(@?\s*[a-z_0-9]{2,24}\s*\(\s*){0,2}@?\s*\$_(POST|GET|REQUEST|COOKIE)\b/ nocase
    condition:
        is_php and any of them
}

rule php_code_function_as_callback : certain extra_php
{
    meta:
        description = "PHP hands assert, eval-like or shell functions to a callback API, a way to run code without naming eval"
        score = 95
    strings:
        $callback = /\b(call_user_func|call_user_func_array|array_map|array_filter|array_walk|array_walk_recursive|usort|uasort|uksort|register_shutdown_function|register_tick_function|forward_static_call|forward_static_call_array|iterator_apply|array_reduce|ob_start|preg_replace_callback|array_diff_ukey|array_intersect_ukey|array_udiff|array_udiff_assoc|array_udiff_uassoc|array_uintersect|array_uintersect_assoc|array_uintersect_uassoc|array_diff_uassoc|array_intersect_uassoc|set_error_handler|set_exception_handler|ReflectionFunction)\s*\(\s*([^;]{0,80},\s*)?["'](assert|system|exec|shell_exec|passthru|popen|proc_open|pcntl_exec|create_function)["']\s*[,)]/ nocase
        // an unquoted name is read as a string by old PHP versions
        $bare = /\b(call_user_func|call_user_func_array|array_map|array_filter|array_walk|register_shutdown_function|forward_static_call_array)\s*\(\s*(assert|system|passthru|shell_exec|create_function)\s*,/ nocase
        // a callback name written with escapes: "ass\\x65rt"
        $escaped = /\b(call_user_func|call_user_func_array|array_map|array_filter|array_walk|usort|uasort|uksort|register_shutdown_function|forward_static_call_array)\s*\(\s*([^;]{0,80},\s*)?["'][a-zA-Z_]{0,10}\\(x[0-9a-fA-F]{2}|[0-7]{3})[a-zA-Z_0-9\\]{0,30}["']/ nocase
        $method = /->\s*(uksort|uasort|usort)\s*\(\s*["'](assert|system|passthru|shell_exec|create_function)["']/ nocase
        $filter = /["']options["']\s*=>\s*["'](assert|system|passthru|shell_exec|exec)["']/ nocase
    condition:
        is_php and any of them
}

rule php_variable_function_on_request : certain extra_php
{
    meta:
        description = "PHP calls a function held in a variable with raw request input (the one-line shell with a hidden name)"
        score = 90
    strings:
        // $f($_POST['x']), $f ($_POST['x']), $a['k']($_GET['x']); not
        // "$_REQUEST ( $_GET + $_POST )" in a comment
        $call = /[^\w>:$]\$[a-zA-Z][a-zA-Z_0-9]{0,30}(\{\s*\d+\s*\}|\[\s*['"]?\w{1,20}['"]?\s*\])*\s*\(\s*(@?\s*[a-z_0-9]{2,24}\s*\(\s*){0,2}@?\s*(\$_(POST|GET|REQUEST|COOKIE|SERVER\s*\[\s*['"]HTTP_)|\$GLOBALS\s*\[\s*['"]_(POST|GET|REQUEST|COOKIE)|\$\{\s*['"]_(POST|GET|REQUEST|COOKIE))/
        $under = /[^\w>:$]\$_[a-z0-9][a-zA-Z_0-9]{0,30}\(\s*(@?\s*[a-z_0-9]{2,24}\s*\(\s*){0,2}@?\s*\$_(POST|GET|REQUEST|COOKIE)/
        $bare = /\$_{1,4}\(\s*@?\s*(\$_(POST|GET|REQUEST|COOKIE)|\$\{)/
        $expr = /\)\s*\)\s*\(\s*@?\s*\$_(POST|GET|REQUEST|COOKIE)\s*\[/
        // ${$x}['a'](${$x}['b']): a superglobal reached through a computed name
        $varvar = /\$\{\s*\$\w{1,20}\s*\}\s*\[[^\]\n]{1,20}\]\s*\(/
        // ${c}($_POST[4]): a variable named by a bare word
        $brace = /\$\{\s*['"]?\w{1,20}['"]?\s*\}\s*\(\s*@?\s*\$_(POST|GET|REQUEST|COOKIE)/
    condition:
        is_php and any of them
}

rule php_small_script_runs_request : certain extra_php
{
    meta:
        description = "small PHP script that reads request input and hands computed values to eval, assert or a shell function"
        score = 90
    strings:
        $request = /\$_(POST|GET|REQUEST|COOKIE)\b|\$_SERVER\s*\[\s*['"]HTTP_|php:\/\/input|getallheaders\s*\(|array_values\s*\(\s*\$_SERVER\b|["']HTTP_(REFERER|ACCEPT_LANGUAGE|USER_AGENT|COOKIE)["']/ nocase
        // the argument is computed: a variable, a call, an interpolated or
        // concatenated string, never a plain literal such as exec('whoami')
        $code = /[^\w>:$\\](eval|assert|create_function)\s*\(\s*(@\s*)?(\$|[a-z_]\w{0,30}\s*\(|"[^"\n]{0,60}\$|"[^"\n]{0,60}"\s*\.|'[^'\n]{0,60}'\s*\.)/ nocase
        $cmd = /[^\w>:$\\](system|passthru|shell_exec|exec|popen|proc_open|pcntl_exec)\s*\(\s*(@\s*)?(\$|[a-z_]\w{0,30}\s*\(|"[^"\n]{0,60}\$|"[^"\n]{0,60}"\s*\.|'[^'\n]{0,60}'\s*\.)/ nocase
        $perl = /new\s+perl\s*\(\s*\)/ nocase
        $strrep = /str_replace\s*\(\s*["'][^"'\n]{1,4}["']\s*,\s*["']["']\s*,\s*["'][^"'\n]{6,60}["']\s*\)/ nocase
        $com = /new\s+COM\s*\(\s*["'][^"'\n]{0,40}(shell|wscript)/ nocase
        $com_split = /new\s+COM\s*\(\s*["'][^"'\n]{1,12}["']\s*\./ nocase
        $name = /=\s*["'](assert|create_function|shell_exec|passthru)["']/ nocase
        $tick = /\bregister_tick_function\s*\(/ nocase
        $varvar = /\$\{\s*\$\w{1,20}\s*\}\s*\[/
        $reflect = /new\s+ReflectionFunction\s*\(\s*\$/ nocase
        // "assert" cut in two around a variable: $x."ert", "ass".$y
        $split = /(\$\w{1,30}\s*\.\s*["'](ert|sert|ssert)["']|["'](as|ass|asse|asser)["']\s*\.\s*\$\w)/
        // a callback held in a variable: last argument, or first one
        $var_cb = /\b(uksort|uasort|usort|array_udiff|array_uintersect|array_diff_ukey|array_intersect_ukey|array_diff_uassoc|array_intersect_uassoc|array_walk|array_filter)\s*\([^;]{1,80},\s*\$\w{1,30}\s*(,\s*["'][^"'\n]{0,10}["']\s*)?\)/ nocase
        $var_cb1 = /\b(call_user_func|call_user_func_array|register_shutdown_function|forward_static_call|forward_static_call_array|array_map|ob_start)\s*\(\s*\$\w{1,30}\s*[,?]/ nocase
        // the page ends calling a variable on a variable: $f($a); ?>
        $var_call = /\$\w{1,30}\s*\(\s*(\$\w{1,30}\s*\(\s*)?\$\w{1,30}(\s*\[[^\]\n]{1,20}\])?\s*\)\s*\)?\s*;\s*(exit\s*;\s*)?\?>/
        $reduce = /\barray_reduce\s*\([^;,]{1,60},\s*\$\w{1,30}\s*[,)]/ nocase
        // preg_replace with the /e modifier and a computed replacement (a
        // variable, a call, a short literal joined to more); template
        // compilers of old applications pass plain literals
        $preg_e = /\bpreg_replace\s*\(\s*["'][\/#|~!@%][^"'\n]{0,60}[\/#|~!@%][a-zA-Z]{0,5}e[a-zA-Z]{0,5}["']\s*,\s*(@?\$|@?[a-z_]\w{0,30}\s*\(|["'][^"'\n]{0,10}["']\s*\.)/ nocase
        // the pattern (and its /e) spelled with chr()
        $preg_chr = /\bpreg_replace\s*\(\s*chr\s*\(/ nocase
        // a page that includes whatever file the request names
        $include = /\b(include|require)(_once)?\s*\(?\s*@?\$(_(GET|POST|REQUEST|COOKIE)\s*\[[^\]\n]{1,40}\]|\w{1,30})\s*\)?\s*;/ nocase
        $computed_cb = /\b(call_user_func|call_user_func_array|array_map|array_filter|array_walk|usort|uasort|uksort|register_shutdown_function|forward_static_call|forward_static_call_array|iterator_apply|array_intersect_uassoc|array_diff_uassoc|array_udiff|array_uintersect)\s*\([^;]{0,80}(base64_decode|str_rot13|strrev|hex2bin|gzinflate|pack|chr|substr_replace|str_replace|implode|join|trim|ltrim|strtolower)\s*\(/ nocase
    condition:
        is_php and filesize < 8KB and ($request or $varvar) and
        ($code or $cmd or $com or $com_split or $perl or $name or $strrep or $tick or $computed_cb or $reflect or $split or
         $preg_e or $preg_chr or $reduce or
         ((any of ($var_cb*) or $var_call or $include) and filesize < 1KB))
}

rule php_command_runner_fallbacks : certain extra_php
{
    meta:
        description = "PHP tries one command function after another until one works, and takes the command from the request"
        score = 90
    strings:
        $fe_exec = /(function_exists|is_callable)\s*\(\s*["']exec["']/ nocase
        $fe_system = /(function_exists|is_callable)\s*\(\s*["']system["']/ nocase
        $fe_passthru = /(function_exists|is_callable)\s*\(\s*["']passthru["']/ nocase
        $fe_shell = /(function_exists|is_callable)\s*\(\s*["']shell_exec["']/ nocase
        $fe_popen = /(function_exists|is_callable)\s*\(\s*["']popen["']/ nocase
        $fe_proc = /(function_exists|is_callable)\s*\(\s*["']proc_open["']/ nocase
        $request = /\$_(POST|GET|REQUEST|COOKIE)\s*\[/
        // the command functions called with their errors silenced
        $quiet = /@\s*(exec|passthru|system|shell_exec|popen|proc_open)\s*\(\s*\$/ nocase
    condition:
        is_php and filesize < 64KB and 3 of ($fe_*) and ($request or #quiet >= 2)
}

rule php_log_wiper : certain extra_php
{
    meta:
        description = "PHP erases shell histories and system logs through commands or file calls (covering an intrusion's tracks)"
        score = 90
    strings:
        $history = /\.(bash|ksh|zsh|sh)_history/
        $unset = /unset\s+HISTFILE/
        $log1 = "/var/log/lastlog"
        $log2 = /\/(var\/log|etc|var\/run)\/[wu]tmp/
        $log3 = "/var/log/secure"
        $log4 = "/var/log/messages"
        $wipe = /(rm\s+-rf|\bunlink\s*\(|\bsystem\s*\(|\bexec\s*\(|\bshell_exec\s*\(|\bpassthru\s*\(|\bfopen\s*\([^;]{1,60}["']w["'])/ nocase
    condition:
        is_php and ($history or $unset) and (2 of ($log*) or $unset or #history >= 2) and $wipe
}

rule php_tiny_command_wrapper : certain extra_php
{
    meta:
        description = "tiny PHP file whose code is a function that runs a command silently and hands back its output"
        score = 80
    strings:
        $quiet = /@\s*(exec|passthru|system|shell_exec|popen)\s*\(\s*\$\w{1,30}\s*[,)]/ nocase
        $capture = /\b(ob_start|ob_get_contents|ob_get_clean)\s*\(/ nocase
        $function = /\bfunction\s+\w{1,30}\s*\(\s*\$/ nocase
    condition:
        is_php and filesize < 1KB and $quiet and $capture and $function
}

rule php_hidden_function_name : certain extra_php
{
    meta:
        description = "PHP spells a code-running function name encoded (base64, rot13, reversed) and uses request input"
        score = 90
    strings:
        $b64_assert = /["']YXNzZXJ0["']/
        $b64_eval = /["']ZXZhbA==["']/
        $b64_system = /["']c3lzdGVt["']/
        $b64_shell = /["']c2hlbGxfZXhlYw==["']/
        $b64_pass = /["']cGFzc3RocnU=["']/
        $b64_create = /["']Y3JlYXRlX2Z1bmN0aW9u["']/
        $b64_decode = /["']YmFzZTY0X2RlY29kZQ==["']/
        $rot_assert = /["']nffreg["']/
        $rot_create = /["']perngr_shapgvba["']/
        $rot_decode = /["']onfr64_qrpbqr["']/
        $rev_assert = /["']tressa["']/
        $rev_system = /["']metsys["']/
        $rev_create = /["']noitcnuf_etaerc["']/
        $rev_decode = /["']edoced_46esab["']/
        $rev_inflate = /["']etalfnizg["']/
        $request = /\$_(POST|GET|REQUEST|COOKIE|SERVER)\b/
    condition:
        is_php and ((any of ($b64_*, $rot_*, $rev_*) and $request) or 2 of ($b64_*, $rot_*, $rev_*))
}

rule php_request_into_code_through_variable : certain extra_php
{
    meta:
        description = "small PHP file copies request input into a variable and passes a variable to eval, assert or a shell function"
        score = 85
    strings:
        $assign = /\$[a-zA-Z_][a-zA-Z_0-9]{0,30}\s*=\s*(@?\s*[a-z_0-9]{2,24}\s*\(\s*){0,2}@?\s*(\$_(POST|GET|REQUEST|COOKIE)|\$GLOBALS\s*\[\s*['"]_(POST|GET|REQUEST|COOKIE))/ nocase
        $sink = /[^\w>:$\\](eval|assert|system|passthru|shell_exec|exec|popen|proc_open|pcntl_exec|create_function)\s*\(\s*(@?\s*[a-z_0-9]{2,24}\s*\(\s*){0,2}@?\s*(["'][^"'\n]{0,40}["']\s*\.\s*)?\$[a-zA-Z_][a-zA-Z_0-9]{0,30}\s*[,).]/ nocase
        $prepared = "prepare(" nocase
    condition:
        is_php and filesize < 6KB and $assign and $sink and not $prepared
}

rule php_xor_built_function : certain extra_php
{
    meta:
        description = "PHP builds a function name by XOR of string literals and calls it on request input"
        score = 90
    strings:
        $xor_hex = /\^ ?"\\x[0-9a-fA-F]{1,2}/
        $xor_chr = /\("[^"\n]{1,3}"\^"[^"\n]{1,3}"\)/
        $xor_chr1 = /\('[^'\n]{1,3}'\^'[^'\n]{1,3}'\)/
        $request = /\$_(POST|GET|REQUEST|COOKIE)\b/
    condition:
        is_php and filesize < 20KB and any of ($xor_*) and $request
}

rule php_remote_code_dropper : certain extra_php
{
    meta:
        description = "PHP copies code from a remote URL into a PHP file of the site (a dropper)"
        score = 90
    strings:
        $copy = /\b(copy|file_put_contents|fwrite)\s*\(\s*["']https?:\/\/[^"'\n]{4,200}["']\s*,\s*["'][^"'\n]{1,80}\.(php|phtml|inc)["']/ nocase
        $put = /\bfile_put_contents\s*\(\s*["'][^"'\n]{1,80}\.(php|phtml)["']\s*,\s*@?\s*file_get_contents\s*\(\s*["']https?:\/\//  nocase
        // base64 of "#!/usr/bin/...", "#!/bin/...", "#include <", an MZ or ELF
        // header, and of an ELF header's base64 (encoded twice)
        $embedded = /["'](IyEvdXNyL2Jpbi9|IyEvYmluL|I2luY2x1ZGUgPH|TVqQAAMAAAAEAAAA|TVpQAAIAAAAEAA8A|f0VMRgE|f0VMRgI|ZjBWTVJnRU|ZjBWTVJnSU)[A-Za-z0-9+\/\r\n]{40}/
        $write = /\b(fwrite|fputs|file_put_contents)\s*\(/ nocase
    condition:
        is_php and ($copy or $put or ($embedded and $write))
}

rule php_packed_loader_with_password : certain extra_php
{
    meta:
        description = "PHP evaluates a packed payload and also keeps an access password or silences errors and time limits (a packed shell's loader)"
        score = 85
    strings:
        $eval = /\b(eval|assert)\s*\(\s*@?\s*(["']\?>["']\s*\.\s*)?(gzinflate|gzuncompress|gzdecode|base64_decode|str_rot13|strrev|convert_uudecode|htmlspecialchars_decode|urldecode|rawurldecode)\s*\(/ nocase
        $hexeval = /\beval\s*\(\s*"(\\x[0-9a-fA-F]{2}){8}/ nocase
        $pass = /\$\w{0,12}pass\w{0,12}(\s*\[\s*['"]\w{1,12}['"]\s*\])?\s*=\s*["'][^"'\n]{1,64}["']/ nocase
        $quiet1 = /error_reporting\s*\(\s*0\s*\)/
        $quiet2 = /set_time_limit\s*\(\s*0\s*\)/
        $quiet3 = /ignore_user_abort\s*\(/
    condition:
        is_php and ($eval or $hexeval) and ($pass or 2 of ($quiet*))
}

rule php_interpreter_over_pipes : certain extra_php
{
    meta:
        description = "PHP opens a bare command interpreter (cmd.exe, /bin/sh) with pipes: an interactive shell"
        score = 85
    strings:
        $comspec = /\bproc_open\s*\(\s*\$_SERVER\s*\[\s*["']COMSPEC["']/ nocase
        $bare = /\bproc_open\s*\(\s*["'](cmd(\.exe)?|\/bin\/(ba)?sh|(ba)?sh)( -i)?["']\s*,/ nocase
    condition:
        is_php and any of them
}

rule php_request_decoded_into_code : certain extra_php
{
    meta:
        description = "PHP decodes or inflates request input and makes a function of it (cookie-driven packed shells)"
        score = 90
    strings:
        $request = /\$_(POST|GET|REQUEST|COOKIE)\s*\[/
        $lambda = /\bcreate_function\s*\(\s*(''|"")\s*,\s*\$\w{1,30}\s*\)/ nocase
        $decode = /\b(gzinflate|gzuncompress|gzdecode|base64_decode|str_rot13)\s*\(\s*\$\w{1,30}\s*\)/ nocase
    condition:
        is_php and $request and $lambda and $decode
}

rule php_eval_of_fetched_code : certain extra_php
{
    meta:
        description = "small PHP file evaluates code it fetches from a URL, an image's metadata or a socket"
        score = 90
    strings:
        $fetch = /\b(file_get_contents|exif_read_data|fopen|readfile|file)\s*\(\s*["'](https?|ftp):\/\// nocase
        $socket = /\b(socket_read|socket_recv|stream_socket_recvfrom|curl_exec)\s*\(/ nocase
        $eval = /[^\w>:$\\](eval|assert|create_function)\s*\(\s*(@?\s*[a-z_0-9]{2,24}\s*\(\s*){0,5}@?\s*\$/ nocase
        // the address itself hidden: file_get_contents(pack('H*', ...))
        $hidden_url = /\b(file_get_contents|fopen|readfile|curl_init)\s*\(\s*(pack|hex2bin|base64_decode|str_rot13|strrev|join|implode|urldecode|rawurldecode|gzinflate)\s*\(/ nocase
        $code = /\b(eval|assert|create_function)\s*\(/ nocase
    condition:
        is_php and filesize < 4KB and ((($fetch or $socket) and $eval) or ($hidden_url and $code))
}

rule php_packed_mail_beacon : certain extra_php
{
    meta:
        description = "packed PHP that mails out the address of the site it runs on (an infection beacon)"
        score = 85
    strings:
        $mail = /\bmail\s*\(/ nocase
        $where = /\$(_SERVER|HTTP_SERVER_VARS)\s*\[\s*['"](HTTP_HOST|REQUEST_URI|SERVER_NAME|SCRIPT_FILENAME|PHP_SELF|SCRIPT_NAME)['"]/ nocase
    condition:
        is_php and layer_depth > 0 and filesize < 16KB and $mail and $where
}

rule php_name_builders : certain extra_php
{
    meta:
        description = "PHP assembles function names out of single characters (an aliased chr(), string indexes, junk stripped by an aliased str_replace) and then runs what it built"
        score = 85
    strings:
        // $c(101).$c(118).$c(97).$c(108): chr() called through a variable
        $chr_alias = /(\$\w{1,20}\(\d{2,3}\)\.){5}\$\w{1,20}\(\d{2,3}\)/
        // $s[4].$s[5].$s[9].$s[10].$s[6]: a name picked out of an alphabet
        $index = /(\$\w{1,20}(\[\d{1,3}\]|\{\d{1,3}\})\.){5}/
        // pack('c*', 0x70, 0x61, 99, 107): a name from character codes
        $pack_c = /pack\s*\(\s*['"]c\*['"](\s*,\s*(0x[0-9a-fA-F]{2}|\d{2,3})){6}/
        // $f("k", "", "kbakske6k4k_kdkekckokdke"): str_replace through a variable
        $strip = /\$\w{1,30}\(\s*["'][^"'\n]{1,4}["']\s*,\s*(""|'')\s*,\s*["'][^"'\n]{10,80}["']\s*\)/
        $run_code = /\b(eval|assert|create_function)\s*\(/ nocase
        $run_varvar = /\$\{\s*(strtoupper|strtolower|\$\w)/ nocase
        $run_call = /\$\w{1,30}\(\);/
        $run_nested = /\$\w{1,30}\(\$\w{1,30}\(\$\w{1,30}\)\)/
        $run_globals = /\$GLOBALS\s*\[\s*['"]\w{1,20}['"]\s*\]\s*\(/
    condition:
        is_php and filesize < 64KB and ($chr_alias or $index or #strip >= 2 or #pack_c >= 2) and any of ($run_*)
}

rule php_self_decoding_packer : certain extra_php
{
    meta:
        description = "PHP packers seen around shells that decode their payload at run time from their own file or a substituted alphabet (a shuffled base64 alphabet, the $_X loader, FOPO)"
        score = 85
    strings:
        $eval = /[^\w>:$\\](eval|assert)\s*\(/ nocase
        $x_loader = /strtr\s*\(\s*\$_X\s*,\s*['"]123456aouie['"]/
        $fopo = "Obfuscation provided by FOPO"
        $b64_alphabet = /strtr\s*\([^;]{1,120}["'][A-Za-z0-9+\/=]{64,65}["']\s*,\s*["']ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789\+\/=?["']/
    condition:
        is_php and $eval and ($x_loader or $fopo or $b64_alphabet)
}

rule php_webshell_family : certain extra_php
{
    meta:
        description = "names and marks of widespread PHP web-shell families (c99, r57, WSO/FilesMan, b374k, phpspy, Weevely...)"
        score = 100
    strings:
        $c99 = "c99shell" nocase
        $c99b = "c99_buff_prepare" nocase
        $r57 = "r57shell" nocase
        $b374k = "b374k" nocase
        $filesman = /['"]FilesMan['"]/
        $wso = /<title>\s*WSO\s*[0-9.]+/ nocase
        $wso_action = "$default_action" nocase
        $phpspy = "phpspy" nocase
        $indox = "IndoXploit" nocase
        $jak = "jak3fr0z" nocase
        $pas = "P.A.S. v" nocase
        $webadmin = "Web Shell by" nocase
        // b374k keeps GET and POST merged in $_GP; WSO dispatches to action*() handlers
        $b374k_gp = /\$_GP\s*\[\s*['"]/
        $wso_handlers = /function\s+action(FilesMan|SecInfo|Console|FilesTools|StringTools|SafeMode|Bruteforce|Sql|Network|SelfRemove|Php)\s*\(/
        $wso_dispatch = /call_user_func\s*\(\s*['"]action['"]\s*\.\s*\$_POST\s*\[\s*['"]a['"]\s*\]/
        // the back-connect form of the c99/Locus family
        $backconnect = /\$_(POST|GET|REQUEST)\s*\[\s*['"](backconnect|bind)(port|ip)['"]/ nocase
        // C source of a bind or back-connect shell, compiled on the server
        $c_socket = "#include <sys/socket.h>"
        $c_compile = /\bgcc\s[^\n'"]{0,80}-o\s/
        // names and code spelled with junk that str_replace strips (Weevely and its imitators)
        $weevely = /str_replace\s*\(\s*["'][a-zA-Z0-9]{1,6}["']\s*,\s*["']["']\s*,\s*["'][a-zA-Z_0-9]{6,80}["']\s*\)/
        $weevely3 = /str_replace\s*\(\s*["'][^"'\n]{1,6}["']\s*,\s*["']["']\s*,\s*\$\w{1,20}\s*\.\s*\$\w{1,20}\s*\.\s*\$\w{1,20}\s*\.\s*\$\w{1,20}/
        $exec = /[^\w>:$\\](system|passthru|shell_exec|exec|popen|proc_open|eval|assert)\s*\(/ nocase
        $varcall = /@\$[a-zA-Z_][a-zA-Z_0-9]{0,30}\s*\(/
        $hidden = /\b(create_function|preg_replace|gzinflate|gzuncompress)\s*\(/ nocase
    condition:
        // a name alone is a fragment or a quote; the page must also run code
        is_php and
        ((($exec or $varcall or $hidden) and
          (any of ($c99, $c99b, $r57, $b374k, $b374k_gp, $indox, $filesman, $jak, $phpspy, $pas, $webadmin, $backconnect) or #wso_handlers >= 2 or ($wso and $wso_action))) or
         #weevely >= 2 or $weevely3 or ($c_socket and $c_compile) or ($wso_dispatch and $wso_handlers))
}

rule php_shell_console : certain extra_php
{
    meta:
        description = "PHP page that offers a command box, a file manager, uploads and server facts together: a web-shell console"
        score = 95
    strings:
        $exec = /[^\w>:$\\](system|passthru|shell_exec|popen|proc_open)\s*\(/ nocase
        $uname = /(php_uname\s*\(|uname\s+-a|posix_getpwuid\s*\(|getmyuid\s*\()/ nocase
        $funcs = /(disable_functions|safe_mode|open_basedir)/ nocase
        $upload = /(move_uploaded_file|\$_FILES\s*\[)/ nocase
        $fm1 = /\b(scandir|opendir|readdir|glob)\s*\(/ nocase
        $fm2 = /\b(unlink|rmdir|rename)\s*\(/ nocase
        $fm3 = /\b(chmod|fileperms|is_writable)\s*\(/ nocase
        $net = /(fsockopen\s*\(|\/bin\/sh|cmd\.exe|\/etc\/passwd|back\s?connect|bind\s?port)/ nocase
        $sql = /(mysql_connect|mysqli_connect|new\s+PDO)\s*\(/ nocase
        $input = /\$_(POST|GET|REQUEST)\s*\[/
    condition:
        is_php and $exec and $input and $upload and $fm1 and $fm2 and
        (($uname and $funcs) or ($uname and $net) or ($funcs and $net and ($fm3 or $sql)))
}

/* ------------------------------------------------------------- reverse shells */

rule backconnect_shell : certain
{
    meta:
        description = "a network back-connect or bind shell (socket wired to a command interpreter), in any script or decoded layer"
        score = 95
    strings:
        $stdin_perl = /open\s*\(?\s*STDIN\s*,\s*\\?["']\s*[<>]\s*&/ nocase
        $dup_c = /dup2\s*\(\s*\w+\s*,\s*[012]\s*\)/
        $execl = /exec(l|lp|v|ve)\s*\(\s*["']\/bin\/(ba)?sh/
        $dup_py = /os\.dup2\s*\(\s*\w+\.fileno\s*\(\s*\)\s*,\s*0\s*\)/
        $php_sock = /\bfsockopen\s*\([^;]{0,120}\)/ nocase
        $php_proc = /\bproc_open\s*\(/ nocase
        $sh = /(\/bin\/sh|\/bin\/bash|cmd\.exe)/ nocase
        $socket = /(use\s+Socket|socket\s*\(|import\s+socket|IO::Socket|fsockopen\s*\(|socket_create\s*\()/ nocase
        $exec = /(exec|system|popen|proc_open|subprocess|pty\.spawn)\s*[\(\{"'`]/ nocase
    condition:
        filetype != "HTML" and filesize < 400KB and $sh and $socket and $exec and
        ($stdin_perl or $dup_py or ($php_sock and $php_proc) or ($dup_c and $execl))
}

rule database_udf_command_execution : certain
{
    meta:
        description = "a server page that plants a database user-defined function or a binary through the database to run commands (MySQL UDF escalation tools)"
        score = 90
    strings:
        $soname = /returns\s+(string|integer|int|real)\s+soname/ nocase
        $dumpfile = /into\s+dumpfile/ nocase
        $binary = /(0x4d5a|0x7f454c46|lib_mysqludf|udf\.dll|sys_eval|sys_exec)/ nocase
    condition:
        (filetype == "PHP" or filetype == "ASP" or filetype == "ASPX" or filetype == "JSP" or filetype == "CFM") and
        ($soname or ($dumpfile and $binary))
}

/* ------------------------------------------------------------------ JSP */

private rule is_jsp
{
    meta:
        description = "a JSP or JSPX page"
        score = 0
    condition:
        filetype == "JSP"
}

rule jsp_command_of_request : certain extra_jsp
{
    meta:
        description = "JSP page runs an operating-system command, or a script, with request input"
        score = 100
    strings:
        $input = /request\s*\.\s*(getParameter|getHeader|getInputStream|getReader|getQueryString|getParameterValues|getParameterMap)\s*\(/
        $runtime = /Runtime\s*\.\s*getRuntime\s*\(\s*\)\s*\.\s*exec\s*\(/
        $builder = /new\s+(java\.lang\.)?ProcessBuilder\s*\(/
        $impl = /java\.lang\.(ProcessImpl|UNIXProcess)/
        $fork = "forkAndExec"
        $reflect_rt = /["']java\.lang\.(Runtime|ProcessBuilder|ProcessImpl|UNIXProcess)["']/
        $reflect_exec = /getMethod\s*\(\s*["'](exec|start)["']/
        $script = /(ScriptEngineManager|getEngineByName|getEngineByExtension)\s*\(/
        $script_eval = /\.\s*eval\s*\(/
        $el = /(ELProcessor|ExpressionFactory|createValueExpression|createMethodExpression|StandardELContext)\b/
        $groovy = /(GroovyShell|GroovyClassLoader|jdk\.jshell|JShell\s*\.\s*create)/
    condition:
        is_jsp and $input and
        ($runtime or $builder or $impl or $fork or ($reflect_rt and $reflect_exec) or
         ($script and $script_eval) or $el or $groovy)
}

rule jsp_class_loader_shell : certain extra_jsp
{
    meta:
        description = "JSP page defines and loads classes from bytes it receives (Behinder, Godzilla and other class-loader shells)"
        score = 100
    strings:
        $input = /request\s*\.\s*(getParameter|getHeader|getInputStream|getReader|getQueryString|getAttribute)\s*\(/
        $define = /\bdefineClass\w{0,8}\s*["(]/
        $extends = /extends\s+(java\.lang\.)?ClassLoader\b/
        $bcel = "$$BCEL$$"
        $bcel_loader = /com\.sun\.org\.apache\.bcel\.internal\.util\.ClassLoader|org\.apache\.bcel\.util\.ClassLoader/
        $templates = "TemplatesImpl"
        $urlloader = /new\s+(java\.net\.)?URLClassLoader\s*\(/
        $compiler = /(ToolProvider\s*\.\s*getSystemJavaCompiler|JavaCompiler)\b/
        $unsafe = /(defineAnonymousClass|Unsafe\s*\.\s*class|MethodHandles\s*\.\s*lookup\s*\(\s*\)\s*\.\s*defineClass)/
        $decode = /(Base64\s*\.\s*getDecoder|BASE64Decoder|decodeBuffer|Base64\s*\.\s*decode|parseBase64Binary|Cipher\s*\.\s*getInstance)/
        $newinstance = /\.\s*(newInstance|loadClass)\s*\(/
        $service = /ServiceLoader\s*\.\s*load\s*\(/
        // base64 of a class file (CAFEBABE), a serialized object or a jar
        $class_b64 = /["'](yv66vg|rO0AB|UEsDB)[A-Za-z0-9+\/]{60}/
        $reflect = /\.\s*setAccessible\s*\(\s*true\s*\)/
        $invoke = /\.\s*invoke\s*\(/
        $forname = /Class\s*\.\s*forName\s*\(/
        $process = /\(\s*Process\s*\)|\bProcess\s+\w+\s*[=;]/
        $jndi = /(trustURLCodebase|JdbcRowSetImpl|InitialContext\s*\(\s*\)\s*\.\s*lookup\s*\(\s*request)/
    condition:
        is_jsp and $input and
        (($define and ($extends or $decode or $newinstance or $invoke)) or $bcel or $bcel_loader or
         ($templates and $decode) or ($urlloader and ($newinstance or $service)) or ($compiler and $newinstance) or
         $unsafe or $class_b64 or ($forname and $reflect and $invoke and $process) or $jndi)
}

rule jsp_memory_shell_injector : certain extra_jsp
{
    meta:
        description = "JSP page registers a filter, servlet or listener at run time (memory-resident shell injector)"
        score = 95
    strings:
        $ctx = /(StandardContext|ApplicationContext|WebappClassLoaderBase|RequestMappingHandlerMapping)\b/
        $filter = /(FilterDef|FilterMap|ApplicationFilterConfig|addFilterMapBefore|addFilterDef)\b/
        $servlet = /(createWrapper|addServletMappingDecoded|addServletMapping)\s*\(/
        $listener = /addApplicationEventListener\s*\(/
        $spring = /registerMapping\s*\(/
    condition:
        is_jsp and $ctx and ($filter or $servlet or $listener or $spring)
}

rule jsp_webshell_family : certain extra_jsp
{
    meta:
        description = "marks of widespread JSP web-shell families (JspSpy, Cknife, jspspy-style file managers with command boxes)"
        score = 95
    strings:
        $jspspy = "JspSpy" nocase
        $ninja = "Ninty" nocase
        $cknife = "Cknife" nocase
        $exec = /(Runtime\s*\.\s*getRuntime|ProcessBuilder)/
    condition:
        is_jsp and $exec and any of ($jspspy, $ninja, $cknife)
}

/* ------------------------------------------------------------ classic ASP */

private rule is_asp
{
    meta:
        description = "a classic ASP page"
        score = 0
    condition:
        filetype == "ASP"
}

rule asp_eval_of_request : certain
{
    meta:
        description = "classic ASP executes or evaluates a request value (the one-line shell family)"
        score = 100
    strings:
        // not "conn.Execute(...)": a database call, not code
        $exec = /[^.\w](eval|execute|executeglobal)\b[ \t(]{1,6}(\w{2,12}\s*\(\s*){0,3}request\b/ nocase
        $chopper = /[^.\w](eval|execute|executeglobal)\b[ \t(]{1,6}[^\n%]{0,60}request\s*(\.\s*(item|form|querystring)\s*)?[(\[]/ nocase
    condition:
        (is_asp or filetype == "ASPX") and any of them
}

rule asp_shell_of_request : certain
{
    meta:
        description = "classic ASP runs a shell command from a request value through WScript.Shell or Shell.Application"
        score = 100
    strings:
        $wscript = /(WScript\.Shell|Shell\.Application|WScript\.Network)/ nocase
        $run = /\.\s*(exec|run|ShellExecute)\b\s*\(?\s*[^\n]{0,60}request/ nocase
        $cmdreq = /cmd(\.exe)?\s*\/c\s*["']?\s*&\s*request/ nocase
        $exec_any = /\.\s*(exec|run|ShellExecute)\b\s*\(/ nocase
        $request = /request\s*(\.\s*(form|querystring|item)\s*)?\(/ nocase
    condition:
        is_asp and $wscript and ($run or $cmdreq or (filesize < 16KB and $exec_any and $request))
}

rule asp_small_script_runs_request : certain
{
    meta:
        description = "small classic ASP page that reads the request and executes or evaluates a variable, or drives WScript.Shell from JScript"
        score = 90
    strings:
        $request = /request\s*(\.\s*(form|querystring|item)\s*)?[(\[]/ nocase
        // Execute x, Execute(x), eval(x): the statement, not conn.Execute(sql)
        $exec_var = /[^.\w](eval|execute|executeglobal)\b[ \t(]{1,6}[a-z_]\w{0,30}[ \t)]*(%>|:|\r?\n)/ nocase
        $activex = /ActiveXObject\s*\(\s*["']WScript\.Shell["']\s*\)\s*\.\s*(Exec|Run)\s*\(/ nocase
    condition:
        (is_asp or filetype == "ASPX") and $request and
        (($exec_var and filesize < 4KB) or $activex)
}

rule asp_webshell_family : certain
{
    meta:
        description = "marks of widespread classic ASP web-shell consoles (command box, file manager and uploads in one page)"
        score = 90
    strings:
        $wscript = /(WScript\.Shell|Shell\.Application)/ nocase
        $fso = "Scripting.FileSystemObject" nocase
        $stream = "ADODB.Stream" nocase
        $cmd = /cmd(\.exe)?\s*\/c/ nocase
        $drive = /\.Drives\b/ nocase
        $upload = /(BinaryRead|SaveToFile)/ nocase
        $request = /request\s*(\.\s*(form|querystring|item)\s*)?\(/ nocase
    condition:
        is_asp and $wscript and $fso and $request and ($cmd or $upload or $stream or $drive)
}

/* --------------------------------------------------------------- ASP.NET */

private rule is_aspx
{
    meta:
        description = "an ASP.NET page or handler"
        score = 0
    condition:
        filetype == "ASPX"
}

rule aspx_eval_of_request : certain
{
    meta:
        description = "ASP.NET (JScript.NET) evaluates a request value (China Chopper and its kin)"
        score = 100
    strings:
        $eval = /\beval\s*\(\s*(\w{2,20}\s*\(\s*){0,3}Request\s*(\.\s*(Item|Form|QueryString|Params|Headers|Cookies)\s*)?[\[(]/ nocase
        $unsafe = /\beval\s*\([^;\n]{1,200},\s*["']unsafe["']/ nocase
    condition:
        (is_aspx or is_asp) and any of them
}

rule aspx_process_of_request : certain
{
    meta:
        description = "ASP.NET starts a process whose command or arguments come from the request"
        score = 100
    strings:
        $start = /Process\s*\.\s*Start\s*\(/ nocase
        $info = /ProcessStartInfo\b/ nocase
        $request = /Request\s*(\.\s*(Item|Form|QueryString|Params|Headers|Cookies)\s*)?\[/ nocase
        $startinfo = /StartInfo\s*\.\s*(FileName|Arguments)\b/ nocase
        $from_request = /(FileName|Arguments)\s*=\s*[^;\n]{0,60}Request\s*(\.\s*(Item|Form|QueryString|Params)\s*)?[\[(]/ nocase
        $start_request = /Process\s*\.\s*Start\s*\([^;\n]{0,120}Request\s*(\.\s*(Item|Form|QueryString|Params)\s*)?[\[(]/ nocase
        $vb_shell = /\bShell\s*\(\s*["']cmd(\.exe)?[^\n]{0,40}Request/ nocase
        $cmd = /(cmd\.exe|cmd\s*\/c|powershell|\/bin\/(ba)?sh)/ nocase
        $textbox = /(TextBox|\.Text\b)/ nocase
    condition:
        is_aspx and ($from_request or $start_request or $vb_shell or (($start or $info or $startinfo) and $cmd and ($request or $textbox)))
}

rule aspx_assembly_from_request : certain
{
    meta:
        description = "ASP.NET loads and instantiates an assembly sent in the request (Behinder, Godzilla and other loader shells)"
        score = 100
    strings:
        $load = /(Assembly\s*\.\s*Load|AppDomain\s*\.\s*CurrentDomain\s*\.\s*Load)\s*\(/ nocase
        $create = /\.\s*(CreateInstance|GetType|EntryPoint)\b/ nocase
        $binary = /Request\s*(\.\s*(BinaryRead|InputStream|Form|Item|Params|Cookies)\b|\[)/ nocase
        $b64 = /FromBase64String\s*\(\s*(Context\s*\.\s*|HttpContext\s*\.\s*Current\s*\.\s*)?Request/ nocase
        $crypt = /(RijndaelManaged|AesManaged|CreateDecryptor|TransformFinalBlock)/ nocase
        $compile = /(CompileAssemblyFromSource|CSharpCodeProvider|VBCodeProvider|JScriptCodeProvider)/ nocase
    condition:
        is_aspx and (($load and $create and ($binary or $b64)) or ($load and $crypt and $binary) or ($compile and ($binary or $b64)))
}

rule aspx_webshell_family : certain
{
    meta:
        description = "marks of widespread ASP.NET web-shell consoles (ASPXSpy and its clones)"
        score = 95
    strings:
        $spy = "ASPXSpy" nocase
        $spy2 = "aspxspy" nocase
        $bin = /Bin_(Button|List|Action)/ nocase
        $proc = /Process\s*\.\s*Start|ProcessStartInfo/ nocase
    condition:
        is_aspx and $proc and any of ($spy, $spy2, $bin)
}

/* ------------------------------------------------------------ ColdFusion */

private rule is_cfm
{
    meta:
        description = "a ColdFusion page or component"
        score = 0
    condition:
        filetype == "CFM"
}

rule cfm_execute_of_request : certain
{
    meta:
        description = "ColdFusion runs a command or evaluates code taken from the form or URL scope"
        score = 100
    strings:
        $cfexecute = /<cfexecute\b[^>]{0,200}#\s*(form|url|cgi|cookie)\s*\./ nocase
        $cfexecute_any = /<cfexecute\b/ nocase
        $script_exec = /\bcfexecute\s*\([^;]{0,200}(form|url)\s*\./ nocase
        $runtime = /createObject\s*\(\s*["']java["']\s*,\s*["']java\.lang\.(Runtime|ProcessBuilder)["']/ nocase
        $scope = /\b(form|url)\s*\.\s*[a-z_]\w*/ nocase
    condition:
        is_cfm and ($cfexecute or $script_exec or ($runtime and $scope) or ($cfexecute_any and $scope and filesize < 16KB))
}

/* -------------------------------------------------- Perl and Python CGI */

rule perl_cgi_command_of_request : certain
{
    meta:
        description = "Perl CGI runs a command or code taken from the request parameters"
        score = 100
    strings:
        $call = /\b(system|exec)\s*\(?\s*[^;\n{]{0,40}(param\s*\(|\$ENV\s*\{\s*['"]?QUERY_STRING|\$FORM\s*\{|\$in\s*\{)/
        // eval of a string, not an eval { } block
        $eval = /\beval\s*\(?\s*(\$\w{1,20}\s*->\s*param\s*\(|param\s*\(|\$FORM\s*\{|\$in\s*\{|\$ENV\s*\{\s*['"]?QUERY_STRING)/
        $backtick = /`[^`\n]{0,40}(\$FORM\s*\{|\$in\s*\{|param\s*\()/
        $qx = /qx\s*[\{(\/][^\n]{0,40}(\$FORM\s*\{|\$in\s*\{|param\s*\()/
        $pipe = /open\s*\(\s*\w+\s*,\s*["'][^"'\n]{0,20}(\$FORM\s*\{|\$in\s*\{)[^"'\n]{0,40}\|["']/
        $telnet = "CGI-Telnet" nocase
    condition:
        filetype == "PERL" and (any of ($call, $eval, $backtick, $qx, $pipe) or $telnet)
}

rule cgi_small_script_runs_request : certain
{
    meta:
        description = "small Perl or Python CGI script that reads the request and runs a command held in a variable"
        score = 85
    strings:
        $perl_in = /(\bparam\s*\(|QUERY_STRING|\$FORM\s*\{|\$in\s*\{|ReadParse\s*\(|read\s*\(\s*STDIN\s*,)/
        // the whole command in one variable
        $perl_run = /(\b(system|exec)\s*\(?\s*\$[a-zA-Z_]\w{0,30}\s*\)?\s*;|`\$[a-zA-Z_]\w{0,30}`|\bqx\s*[\{(\/|]\s*\$[a-zA-Z_]\w{0,30}\s*[\})\/|])/
        $py_in = /(cgi\.FieldStorage\s*\(|\.getvalue\s*\(|os\.environ\s*\[\s*["']QUERY_STRING)/
        $py_run = /(os\.system|os\.popen|subprocess\.(call|Popen|check_output|run|getoutput)|commands\.getoutput)\s*\(\s*[a-zA-Z_]\w*\s*[,)]/
    condition:
        filesize < 8KB and
        ((filetype == "PERL" and $perl_in and $perl_run) or (filetype == "PYTHON" and $py_in and $py_run))
}

rule python_cgi_command_of_request : certain
{
    meta:
        description = "Python CGI or web handler runs a command or code taken from the request"
        score = 100
    strings:
        $call = /(os\.system|os\.popen|subprocess\.\w+|commands\.getoutput|\beval|\bexec)\s*\([^)\n]{0,80}(\.getvalue\s*\(|\.getfirst\s*\(|request\.(GET|POST|args|form|values)\b)/
        $form = "cgi.FieldStorage" nocase
        $cmd_var = /(os\.system|os\.popen|subprocess\.(call|Popen|check_output|run|getoutput))\s*\(\s*(form|cmd|command)\b/
    condition:
        filetype == "PYTHON" and ($call or ($form and $cmd_var))
}

/* ================================================ suspicious: a second look */

rule php_eval_of_decoded_blob : extra_php
{
    meta:
        description = "PHP evaluates a decoded, decompressed or decrypted payload (the decoded layer shows what it does)"
        score = 70
    strings:
        $eval = /\b(eval|assert)\s*\(\s*@?\s*(gzinflate|gzuncompress|gzdecode|base64_decode|str_rot13|strrev|hex2bin|convert_uudecode|rawurldecode|urldecode|pack|openssl_decrypt|mcrypt_decrypt|hexdec)\s*\(/ nocase
        $create = /\bcreate_function\s*\(\s*["']["']\s*,\s*@?\s*(gzinflate|gzuncompress|base64_decode|str_rot13|strrev|\$)/ nocase
    condition:
        is_php and any of them
}

rule php_packed_payload : extra_php
{
    meta:
        description = "PHP unpacks a compressed or layered payload"
        score = 60
    strings:
        $unpack = /\b(gzinflate|gzuncompress|gzdecode)\s*\(\s*@?\s*(base64_decode|str_rot13|strrev|hex2bin|convert_uudecode)\s*\(/ nocase
        $rot = /\bstr_rot13\s*\(\s*@?\s*(str_rot13|base64_decode|gzinflate|strrev|hex2bin)\s*\(/ nocase
        $inner = /\b(base64_decode|gzinflate|strrev)\s*\(\s*@?\s*str_rot13\s*\(/ nocase
        $blob = /base64_decode\s*\(\s*["'][A-Za-z0-9+\/=\r\n]{400}/
    condition:
        is_php and any of them
}

rule php_code_from_request : extra_php
{
    meta:
        description = "PHP evaluates a variable or includes a request-named file (code injection at best)"
        score = 45
    strings:
        $eval = /[^\w>:$\\](eval|assert)\s*\(\s*@?\s*\$[a-zA-Z_]/ nocase
        $include = /\b(include|require)(_once)?\s*\(?\s*@?\s*\$_(POST|GET|REQUEST|COOKIE|FILES)\b/ nocase
        $create = /\bcreate_function\s*\(\s*["']["']\s*,/ nocase
        $preg = /\bpreg_replace\s*\(\s*["'][\/#|~!@%{(][^"']{0,80}[\/#|~!@%})][imsxuADSUXJ]{0,6}e[imsxuADSUXJ]{0,6}["']/
    condition:
        is_php and any of them
}

rule php_shell_call_with_variable : extra_php
{
    meta:
        description = "PHP passes a variable to system, passthru, shell_exec, popen or proc_open"
        score = 35
    strings:
        $call = /[^\w>:$\\](system|passthru|shell_exec|popen|proc_open|pcntl_exec)\s*\(\s*@?\s*\$[a-zA-Z_]/ nocase
    condition:
        is_php and $call
}

rule php_obfuscated_names : extra_php
{
    meta:
        description = "PHP hides function names: chr() chains, XOR of literals, encoded names, variable calls on superglobals"
        score = 50
    strings:
        $chr = /(chr\s*\(\s*[0-9]{2,3}\s*\)\s*\.\s*){6}/ nocase
        $xor = /["'] ?\^ ?["'](\\x[0-9a-fA-F]{1,2}){3}/
        $b64 = /["'](YXNzZXJ0|ZXZhbA==|c3lzdGVt|c2hlbGxfZXhlYw==|cGFzc3RocnU=|Y3JlYXRlX2Z1bmN0aW9u|YmFzZTY0X2RlY29kZQ==)["']/
        $rev = /["'](tressa|metsys|noitcnuf_etaerc|edoced_46esab|etalfnizg)["']/
        $globals = /\$\{\s*["']_(POST|GET|REQUEST|COOKIE)["']\s*\}/
        // a name picked letter by letter out of an alphabet string
        $alphabet = /\]\.\$\w{1,30}[\[{]\d{1,2}[\]}]\.\$\w{1,30}[\[{]\d{1,2}[\]}]\.\$/
    condition:
        is_php and any of them
}

rule php_long_encoded_line : extra_php
{
    meta:
        description = "PHP file with a very long high-entropy literal, the usual carrier of a packed payload"
        score = 40
    strings:
        $call = /\b(eval|assert|create_function|preg_replace|call_user_func|base64_decode|gzinflate|str_rot13)\s*\(/ nocase
    condition:
        is_php and longest_literal > 2000 and literal_entropy > 5.2 and $call
}

rule jsp_runtime_exec : extra_jsp
{
    meta:
        description = "JSP page runs an operating-system command, loads classes at run time, or spells its code in \\u escapes"
        score = 50
    strings:
        $runtime = /Runtime\s*\.\s*getRuntime\s*\(\s*\)\s*\.\s*exec\s*\(/
        $builder = /new\s+(java\.lang\.)?ProcessBuilder\s*\(/
        $define = /\bdefineClass\s*\(/
        $script = /ScriptEngineManager\s*\(/
        // ASCII written as Java unicode escapes: code hidden from readers
        $escaped = /(\\u00[2-7][0-9a-fA-F]){12}/
    condition:
        is_jsp and any of them
}

rule asp_shell_objects : suspicious
{
    meta:
        description = "classic ASP drives WScript.Shell, Shell.Application or cmd.exe, or hides code with VBScript.Encode"
        score = 45
    strings:
        $wscript = "WScript.Shell" nocase
        $shellapp = "Shell.Application" nocase
        $cmd = /cmd(\.exe)?\s*\/c/ nocase
        $encoded = "#@~^"
        $encode_lang = "VBScript.Encode" nocase
        $chr = /(chrw?\s*\(\s*[0-9]{2,3}\s*\)\s*&\s*){8}/ nocase
    condition:
        is_asp and any of them
}

rule aspx_process_or_loader : suspicious
{
    meta:
        description = "ASP.NET page starts processes or loads assemblies from bytes"
        score = 45
    strings:
        $start = /Process\s*\.\s*Start\s*\(/ nocase
        $info = "ProcessStartInfo" nocase
        $load = /Assembly\s*\.\s*Load\s*\(/ nocase
    condition:
        is_aspx and any of them
}

rule cfm_execute : suspicious
{
    meta:
        description = "ColdFusion page runs a command"
        score = 45
    strings:
        $cfexecute = /<cfexecute\b/ nocase
        $runtime = /java\.lang\.Runtime/ nocase
    condition:
        is_cfm and any of them
}

rule cgi_command_call : suspicious
{
    meta:
        description = "Perl or Python CGI script runs commands"
        score = 35
    strings:
        $perl_exec = /\b(system|exec)\s*\(\s*\$/
        $perl_tick = /`\$[a-zA-Z_]\w{0,30}/
        $py_exec = /(os\.system|os\.popen|subprocess\.(Popen|call|check_output|run))\s*\(/
        $cgi = /(use\s+CGI\b|cgi\.FieldStorage|QUERY_STRING)/
    condition:
        (filetype == "PERL" or filetype == "PYTHON") and $cgi and any of ($perl_exec, $perl_tick, $py_exec)
}
