<?php
// SYNTHETIC DEMO SAMPLE for ardent-agent. Not a working tool: it stops at
// once. A "network check" page that passes a variable to the shell is worth
// a second look even when it is not a web shell.
exit;
// $out = shell_exec($target);
