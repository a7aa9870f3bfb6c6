<?php
// An ordinary page whose name has a space in it.
$team = array('Ada', 'Grace', 'Linus');
?>
<ul>
<?php foreach ($team as $member): ?>
  <li><?php echo htmlspecialchars($member); ?></li>
<?php endforeach; ?>
</ul>
