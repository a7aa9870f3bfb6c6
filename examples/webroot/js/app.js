// An ordinary script of the demo web root.
document.addEventListener('DOMContentLoaded', function () {
  document.title = document.title + ' (demo)';
});
