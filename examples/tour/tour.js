// A script that knows nothing of Vorn: it tries to read, create, overwrite and append in five folders, and says what
// it was able to do. Run by the Windows script host.
var fso = new ActiveXObject("Scripting.FileSystemObject");
var folders = [
  ["denied", "C:\\tour\\denied"], ["protected", "C:\\tour\\protected"], ["work", "C:\\tour\\work"],
  ["temp", fso.GetSpecialFolder(2).Path + "\\tour"], ["unlisted", "C:\\tour\\unlisted"]
];
var kRead = 1, kWrite = 2, kAppend = 8;

function attempt(folder, what, action) {
  var outcome;
  try {
    outcome = action() || "done";
  } catch (e) {
    outcome = "refused";
  }
  WScript.Echo("  " + (folder + "          ").substr(0, 11) + (what + "          ").substr(0, 11) + outcome);
}
function writeTo(path, mode, text) {
  var file = fso.OpenTextFile(path, mode, false);
  file.Write(text);
  file.Close();
}

var i;
for (i = 0; i < folders.length; ++i) {
  var name = folders[i][0], path = folders[i][1];
  attempt(name, "read", function() {
    var file = fso.OpenTextFile(path + "\\read.txt", kRead);
    var text = file.ReadAll();
    file.Close();
    return "\"" + text + "\"";
  });
  attempt(name, "create", function() {
    var file = fso.CreateTextFile(path + "\\created.txt", true);
    file.Write("created by the tour");
    file.Close();
  });
  attempt(name, "overwrite", function() { writeTo(path + "\\overwrite.txt", kWrite, "overwritten by the tour"); });
  attempt(name, "append", function() { writeTo(path + "\\append.txt", kAppend, ", appended by the tour"); });
}
WScript.Quit(7);
