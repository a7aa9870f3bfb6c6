<?php
// An ordinary page of the ardent-agent demo web root.
$name = isset($_GET['name']) ? $_GET['name'] : 'visitor';
?>
<!DOCTYPE html>
<html lang="en">
<head><meta charset="utf-8"><title>Welcome</title></head>
<body>
  <p>Hello, <?php echo htmlspecialchars($name, ENT_QUOTES, 'UTF-8'); ?>.</p>
  <p>Today is <?php echo date('l, j F Y'); ?>.</p>
</body>
</html>
